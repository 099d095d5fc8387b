/// Work that runs later, on a thread of the utility class: nobody waits for it, and it may be
/// delayed in favour of what somebody waits for.
#pragma once

#include <functional>

namespace tavelin {

class UtilityQueue {
  public:
    virtual ~UtilityQueue() = default;

    /// Runs `work` once, soon, on another thread; returns at once. Two pieces of work may run at
    /// the same time and in any order. Work must not throw. What has not begun when the process
    /// ends never runs. Any thread may call this, also from within work.
    virtual void async(std::function<void()> work) = 0;
};

/// Runs `work` on the process's utility queue.
void runOnUtilityQueue(std::function<void()> work);

} // namespace tavelin
