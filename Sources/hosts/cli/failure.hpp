/// How a command fails: one line for the user that says what to do, and the exit status.
#pragma once

#include "fskit/api/item.hpp"
#include "hosting/outcome.hpp"

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace tavelin::cli {

enum class ExitStatus : int {
    done = 0,
    failed = 1,
    wrongUsage = 2,
    unreadable = 3, ///< of `check`: what it is to examine cannot be read
};

/// Thrown by commands and shown by runCommandLine() behind "tavelin COMMAND: "; with an empty
/// message for what has been told already.
class Failure : public std::runtime_error {
  public:
    explicit Failure(const std::string& message, ExitStatus status = ExitStatus::failed)
        : std::runtime_error(message), status_(status) {}

    [[nodiscard]] ExitStatus status() const noexcept { return status_; }

  private:
    ExitStatus status_;
};

/// "photos/a.jpg: No such file or directory": `subject` with its odd characters escaped, then the
/// error in words, with a hint where there is something the user can do.
[[nodiscard]] std::string explain(std::string_view subject, const fskit::Error& error);
/// The same for an error of reading or changing a file's data, which may not be to be had: then
/// says why, and what helps.
[[nodiscard]] std::string explainData(std::string_view subject, const fskit::Error& error,
                                      const fskit::FSItemAttributes& attributes);
/// The same for a call of the host's system that failed with this errno.
[[nodiscard]] std::string explainHost(std::string_view subject, int hostError);

/// The number of an error in the POSIX domain; kEIO for any other.
[[nodiscard]] std::int32_t numberOf(const fskit::Error& error) noexcept;

/// The value of an outcome, or the failure that explains it.
template<typename Value>
Value valueOf(Outcome<Value> outcome, std::string_view subject) {
    if (!outcome) {
        throw Failure(explain(subject, outcome.error()));
    }
    return std::move(outcome).get();
}

/// The value of a request to an item's data, or the failure that explains it.
template<typename Value>
Value dataOf(Outcome<Value> outcome, std::string_view subject,
             const fskit::FSItemAttributes& attributes) {
    if (!outcome) {
        throw Failure(explainData(subject, outcome.error(), attributes));
    }
    return std::move(outcome).get();
}

} // namespace tavelin::cli
