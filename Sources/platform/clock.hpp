/// Wall-clock time for records, and the clock that tests replace.
#pragma once

#include <chrono>
#include <functional>

namespace tavelin {

/// A moment in wall-clock time.
using Date = std::chrono::system_clock::time_point;

/// A clock, called from any thread.
using Clock = std::function<Date()>;

[[nodiscard]] inline Date currentDate() {
    return std::chrono::system_clock::now();
}

/// Measures elapsed time; not affected by changes of the wall clock.
class Stopwatch {
  public:
    [[nodiscard]] std::chrono::milliseconds elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start_);
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace tavelin
