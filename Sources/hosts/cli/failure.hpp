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

/// Thrown by commands. runCommandLine() catches it and prints its message behind
/// "tavelin COMMAND: ". An empty message prints nothing, for errors that are on standard error
/// already. The message goes to a terminal, so names in it are escaped().
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& message, ExitStatus status = ExitStatus::failed)
        : std::runtime_error(message), status_(status) {}

    [[nodiscard]] ExitStatus status() const noexcept { return status_; }

  private:
    ExitStatus status_;
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

/// Returns the value of an outcome. Throws Failure with explain() for its error.
template<typename Value>
Value valueOf(Outcome<Value> outcome, std::string_view subject) {
    if (!outcome) {
        throw Failure(explain(subject, outcome.error()));
    }
    return std::move(outcome).get();
}

/// Returns the value of a request for an item's data. Throws Failure with explainData().
template<typename Value>
Value dataOf(Outcome<Value> outcome, std::string_view subject,
             const fskit::FSItemAttributes& attributes) {
    if (!outcome) {
        throw Failure(explainData(subject, outcome.error(), attributes));
    }
    return std::move(outcome).get();
}

} // namespace tavelin::cli
