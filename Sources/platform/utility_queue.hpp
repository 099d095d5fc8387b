/// Work that runs later, on a thread of the utility class. No caller waits for it, so the system
/// may delay it in favour of work that a caller waits for.
#pragma once

#include <functional>

namespace tavelin {

/// A concurrent queue. It lives until the process ends and is shared by all its users.
class UtilityQueue {
  public:
    virtual ~UtilityQueue() = default;

    /// Runs `work` once, soon, on another thread; returns at once. Two pieces of work may run at
    /// the same time and in any order, so work that shares state locks it. Work must own what it
    /// uses and must not throw. Work that has not begun when the process ends never runs. Any
    /// thread may call this, also from within work. Throws std::system_error when there is not
    /// even one thread to run it.
    virtual void async(std::function<void()> work) = 0;
};

/// Runs `work` on the process's utility queue, see UtilityQueue::async().
void runOnUtilityQueue(std::function<void()> work);

} // namespace tavelin
