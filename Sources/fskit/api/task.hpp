/// Tasks and their options and progress.
#pragma once

#include "fskit/api/error.hpp"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fskit {

/// Option words as a command line has them, already split.
struct FSTaskOptions {
    /// "-o", "ro,windows_names": a list stays one word until the module splits it.
    std::vector<std::string> taskOptions;
};

/// A long-running request, made by the host and shared with whoever completes it.
class FSTask {
  public:
    virtual ~FSTask() = default;
    /// One line for the user of the task. Any thread.
    virtual void logMessage(const std::string& text) = 0;
    /// Ends the task, once, with the error when there was one. Any thread.
    virtual void didComplete(const std::optional<Error>& error) = 0;
};

/// How far a task has come; any thread may read it while another one advances it.
class NSProgress {
  public:
    /// The number of units is fixed; what one is, is up to the task.
    explicit NSProgress(std::int64_t totalUnitCount) noexcept : total_(totalUnitCount) {}

    std::int64_t totalUnitCount() const noexcept { return total_; }
    std::int64_t completedUnitCount() const noexcept { return completed_; }
    void setCompletedUnitCount(std::int64_t count) noexcept { completed_ = count; }

  private:
    const std::int64_t total_;
    std::atomic<std::int64_t> completed_{0};
};

} // namespace fskit
