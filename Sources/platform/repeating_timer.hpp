/// Repeating timers on threads of the utility class, in the manner of dispatch timer sources.
///
/// A timer starts suspended. From start() on it ticks one interval later and then every interval.
/// Ticks of one timer never overlap. A tick that runs past later deadlines makes the timer skip
/// them, so a slow tick is followed by one tick and never by a burst.
///
///     suspended ──start()──▶ ticking ──cancel()──▶ cancelled
///         └──────────────cancel()──────────────────────▲
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace tavelin {

/// A plain value; the two times are independent of each other.
struct TimerSchedule {
    /// Time from start() to the first tick, and from tick to tick. Positive.
    std::chrono::nanoseconds interval;
    /// How much later than its deadline a tick may come, so that the system can share wake-ups
    /// and save power. Not negative.
    std::chrono::nanoseconds leeway;

    /// A schedule from an interval in seconds. Intervals below a millisecond (or that are no
    /// number) count as one millisecond, those above a day as a day.
    [[nodiscard]] static TimerSchedule every(double seconds, std::chrono::nanoseconds leeway);
};

/// A timer in one of the three states above. Its owner holds it by unique_ptr. start() is called
/// by one thread at a time; cancel() may be called by any thread.
class RepeatingTimer {
  public:
    /// Cancels. Like cancel(), it does not wait for a running tick.
    virtual ~RepeatingTimer() = default;

    /// Begins to tick. Further calls, and calls after cancel(), do nothing. Throws
    /// std::system_error when the system has no thread to give, and may be called again then.
    virtual void start() = 0;

    /// Ends the ticking for good. A tick that has already begun is not waited for, so this may be
    /// called (and the timer destroyed) from any thread, from within the timer's own tick, and
    /// with a lock held that the tick takes. A tick may therefore still run after this returns.
    virtual void cancel() noexcept = 0;
};

/// Makes a suspended timer that calls `tick`. The tick owns what it uses, or outlives it: it may
/// still run after the timer is gone. Prefer makeRepeatingTimer, which takes care of this.
/// A tick must not throw.
[[nodiscard]] std::unique_ptr<RepeatingTimer> makeUnownedTimer(TimerSchedule schedule,
                                                               std::function<void()> tick);

/// Makes a suspended timer that calls `action` on its owner at each tick. The timer holds the
/// owner weakly: it never keeps it alive between ticks, and once the owner is gone ticks do
/// nothing. While `action` runs the owner is kept, so its last reference may be dropped, and its
/// destructor run, on the timer's thread.
template<typename Owner, typename Action>
[[nodiscard]] std::unique_ptr<RepeatingTimer>
makeRepeatingTimer(std::weak_ptr<Owner> owner, TimerSchedule schedule, Action action) {
    return makeUnownedTimer(schedule, [owner = std::move(owner), action = std::move(action)] {
        if (const auto alive = owner.lock()) {
            action(*alive);
        }
    });
}

} // namespace tavelin
