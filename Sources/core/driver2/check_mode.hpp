/// What the arguments of a check ask for, and when a check cannot run. Pure; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace tavelin::Driver2 {

enum class CheckMode : std::int32_t {
    quick = 0,
    verify = 1,
    repair = 2,
};

/// The mode that a check's arguments ask for: "-q" quick (also without any), "-n" verify, "-y"
/// repair; the strongest wins. Throws NTFSError kEINVAL for any other argument.
[[nodiscard]] CheckMode checkMode(std::span<const std::string> arguments);

/// Why a check cannot run: kENOTSUP for a repair, kENXIO for a volume that is not loaded.
[[nodiscard]] std::optional<std::int32_t> checkError(CheckMode mode, bool volumeLoaded) noexcept;

} // namespace tavelin::Driver2
