/// The failure of a command: one line for the user with the reason and a remedy, and the exit
/// status.
///
/// Below the command line errors are Outcome values, OpenError or NTFSError. Here they become a
/// Failure, which is the only exception that commands throw on purpose. All functions may be
/// called from any thread.
#pragma once

#include "fskit/api/item.hpp"
#include "fskit/api/outcome.hpp"

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tavelin::cli {

/// The exit statuses of the program. Scripts rely on the numbers.
enum class ExitStatus : int {
    done = 0,
    failed = 1,
    wrongUsage = 2,
    unreadable = 3, ///< of `check` alone: the image cannot be read
};

static_assert(static_cast<int>(ExitStatus::done) == 0 && static_cast<int>(ExitStatus::failed) == 1);
static_assert(static_cast<int>(ExitStatus::wrongUsage) == 2);

/// Thrown by commands. runCommandLine() catches it and prints its message behind
/// "tavelin COMMAND: ". An empty message prints nothing, for errors that are on standard error
/// already. The message goes to a terminal, so names in it are escaped().
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& message, ExitStatus status = ExitStatus::failed)
        : std::runtime_error(message), status_(status) {}
    /// `subject` is the path or name that failed, as it is; `number` the error in macOS's
    /// numbering. Both are for programs, which do not take messages apart.
    Failure(const std::string& message, std::string_view subject, std::int32_t number)
        : std::runtime_error(message), subject_(subject), number_(number) {}
    /// The same failure with another exit status.
    Failure(const Failure& other, ExitStatus status) : Failure(other) { status_ = status; }

    /// What the process ends with.
    [[nodiscard]] ExitStatus status() const noexcept { return status_; }
    /// Empty where no single item is concerned.
    [[nodiscard]] const std::string& subject() const noexcept { return subject_; }
    /// 0 where no error of a system is the reason.
    [[nodiscard]] std::int32_t number() const noexcept { return number_; }

  private:
    ExitStatus status_ = ExitStatus::failed;
    std::string subject_;
    std::int32_t number_ = 0;
};

/// One item cannot be read, copied or changed. Work over several items tells it and goes on.
class ItemFailure : public Failure {
    using Failure::Failure;
};

/// "photos/a.jpg: No such file or directory": `subject` escaped, then the error's description, with
/// a hint where the user can do something about it.
[[nodiscard]] std::string explain(std::string_view subject, const fskit::Error& error);
/// The same for an error of reading or changing a file's data. `attributes` are the file's: data
/// that is encrypted or stored elsewhere gets the reason and the remedy for that.
[[nodiscard]] std::string explainData(std::string_view subject, const fskit::Error& error,
                                      const fskit::FSItemAttributes& attributes);
/// The same for a system call that failed with this errno of the host.
[[nodiscard]] std::string explainHost(std::string_view subject, int hostError);

/// The number of an error in the POSIX domain, in macOS's numbering; kEIO for any other domain.
[[nodiscard]] std::int32_t numberOf(const fskit::Error& error) noexcept;
/// "ENOENT", for programs; "" for 0, and "E" and the number for errors that have no name here.
[[nodiscard]] std::string errorName(std::int32_t number);
/// Whether an error concerns the whole volume, device or process, so that every further item would
/// meet it. kEIO does not: of a damaged volume the rest may be readable.
[[nodiscard]] bool endsEverything(std::int32_t number) noexcept;

/// Throws ItemFailure for this item of the volume and an error in macOS's numbering.
[[noreturn]] void throwItemError(std::string_view path, std::int32_t number);
/// Throws ItemFailure for a device, pipe or socket, with the reason why it has no bytes to read.
[[noreturn]] void throwNoContent(std::string_view path, const fskit::FSItemAttributes& attributes);
/// Throws for a volume's error: Failure where endsEverything() is true, otherwise ItemFailure.
/// `attributes` are those of a file whose data was asked for, and explain why it is refused.
[[noreturn]] void throwVolumeError(std::string_view path, const fskit::Error& error,
                                   const fskit::FSItemAttributes& attributes = {});
/// The same for a system call that has just failed: reads errno, so nothing may come in between.
[[noreturn]] void throwHostError(std::string_view path);
[[noreturn]] void throwHostError(std::string_view path, int hostError);

/// Returns the value of an outcome. Throws for its error as throwVolumeError() does.
template<typename Value>
Value valueOf(Outcome<Value> outcome, std::string_view subject,
              const fskit::FSItemAttributes& attributes = {}) {
    if (!outcome) {
        throwVolumeError(subject, outcome.error(), attributes);
    }
    return std::move(outcome).get();
}

} // namespace tavelin::cli
