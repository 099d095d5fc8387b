/// Wall-clock time for records that people read, and steady time for durations.
#pragma once

#include <chrono>
#include <functional>

namespace tavelin {

/// A moment in wall-clock time, in the system clock's resolution and without a time zone. It may
/// jump in either direction when the clock is set, so durations are measured with a Stopwatch.
using Date = std::chrono::system_clock::time_point;

/// A source of the current date. Its users call it from any thread, several at a time. Tests pass
/// a fixed or stepped clock in place of currentDate.
using Clock = std::function<Date()>;

/// The system's wall-clock time. Any thread.
[[nodiscard]] inline Date currentDate() {
    return std::chrono::system_clock::now();
}

/// Measures the time since its construction on the steady clock, which changes of the wall clock
/// do not affect. It is immutable, so any thread may read it.
class Stopwatch {
  public:
    /// The time since construction, rounded down to whole milliseconds.
    [[nodiscard]] std::chrono::milliseconds elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start_);
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace tavelin
