/// The one error type above the bridge, and the funnels that record errors for the diagnostics.
///
/// Error numbers are macOS's on every host (platform/error_numbers.hpp); only `deviceError` is
/// given the host's, because the devices speak it. Any thread may call anything here.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tavelin {

/// Thrown by every failing operation of the volume core. what() is the description: the decimal
/// code, a blank and the system's text for it ("5 Input/output error").
///
/// The core itself chooses kEIO (a mount failed without a reason), kENXIO (the volume is unmounted,
/// or a check is asked of a volume that is not loaded), kEINVAL (a check argument is not
/// understood, a text contains a NUL), kENOTSUP (a repair is asked for). All other codes come from
/// the bridge and the device.
class NTFSError : public std::runtime_error {
  public:
    explicit NTFSError(std::int32_t errorCode);

    /// The macOS number, see platform/error_numbers.hpp.
    const std::int32_t code;

    friend bool operator==(const NTFSError& a, const NTFSError& b) { return a.code == b.code; }
};

/// The number under which a failure of any kind is answered and recorded: an NTFSError's code, kEIO
/// for every other exception.
[[nodiscard]] std::int32_t errorCode(const std::exception& error) noexcept;

/// Records a failure that is about to be answered to the host, under the operation's bare name
/// (`op` up to its first "("), in the error tally; returns errorCode(error). The layer that builds
/// the host's error objects wraps this into its posixError. Never fails.
std::int32_t recordError(const std::exception& error, std::string_view op) noexcept;

/// Records a failed device call: in the error tally as "device_" and `op` ("read", "write",
/// "sync"), and, the first twenty times, as an event "device_error" in the event log, so that a
/// dying disk cannot flood it. `hostError` is the host's errno, offset and length are the
/// request's, in bytes, `description` says what went wrong (its first 200 characters are kept).
/// May be called with a volume's lock held. Never fails.
void deviceError(std::string_view op, std::int32_t hostError, std::uint64_t offset,
                 std::uint64_t length, std::string_view description) noexcept;

/// Device errors so far; a load sets it back to 0. An overflow stops the process.
extern std::atomic<std::int64_t> deviceErrorEvents;

} // namespace tavelin
