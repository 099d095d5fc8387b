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

} // namespace tavelin
