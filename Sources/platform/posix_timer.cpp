// A repeating timer on a thread of its own. The thread and the handle share only State, so either
// may be destroyed first. cancel() wakes the thread, which ends by itself; nothing joins it.
#include "platform/mutex.hpp"
#include "platform/private/posix_services.hpp"

#include <exception>

#ifdef __linux__
#include <sys/prctl.h>
#endif

namespace tavelin::posix {

namespace {

using Instant = std::chrono::steady_clock::time_point;

/// Owned by the handle and by the thread.
struct State {
    Mutex mutex;
    ConditionVariable changed;
    bool started TAVELIN_GUARDED_BY(mutex) = false;
    bool cancelled TAVELIN_GUARDED_BY(mutex) = false;
};

/// Waits for the deadline; false when the timer was cancelled before it.
bool reached(State& state, Instant deadline) {
    MutexLock lock(state.mutex);
    // Wake-ups without a reason and the early ones of a coarse clock go round again.
    while (!state.cancelled && std::chrono::steady_clock::now() < deadline) {
        state.changed.waitUntil(state.mutex, deadline);
    }
    return !state.cancelled;
}

/// The deadline after a tick. Deadlines stay on the grid of the first one, so ticks do not drift,
/// and those that passed during the tick are skipped.
Instant following(Instant deadline, std::chrono::nanoseconds interval) {
    const auto late = std::chrono::steady_clock::now() - deadline;
    const auto missed = late > interval ? late / interval : 0;
    return deadline + interval * (missed + 1);
}

void allowLeeway(std::chrono::nanoseconds leeway) {
#ifdef __linux__
    // The kernel may now join this thread's wake-ups with others. A refusal costs only power.
    static_cast<void>(prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(leeway.count())));
#else
    static_cast<void>(leeway);
#endif
}

class ThreadTimer final : public RepeatingTimer {
  public:
    ThreadTimer(TimerSchedule schedule, std::function<void()> tick)
        : schedule_(schedule), tick_(std::move(tick)) {}

    ~ThreadTimer() override { cancel(); }

    void start() override {
        {
            MutexLock lock(state_->mutex);
            if (state_->started || state_->cancelled) {
                return;
            }
            state_->started = true;
        }
        // The first interval counts from this call, not from the thread's first instruction.
        const Instant first = std::chrono::steady_clock::now() + schedule_.interval;
        try {
            // A copy: without a thread the tick is needed for the next call.
            spawnUtilityThread([state = state_, schedule = schedule_, tick = tick_, first] {
                allowLeeway(schedule.leeway);
                // The tick runs without the lock, so it may cancel or destroy its own timer.
                for (Instant deadline = first; reached(*state, deadline);
                     deadline = following(deadline, schedule.interval)) {
                    tick();
                }
            });
        } catch (const std::exception&) {
            MutexLock lock(state_->mutex);
            state_->started = false;
            throw;
        }
        tick_ = nullptr;
    }

    void cancel() noexcept override {
        MutexLock lock(state_->mutex);
        state_->cancelled = true;
        state_->changed.notifyAll();
    }

  private:
    const std::shared_ptr<State> state_ = std::make_shared<State>();
    const TimerSchedule schedule_;
    std::function<void()> tick_; // the thread's alone once there is one
};

} // namespace

std::unique_ptr<RepeatingTimer> makeTimer(TimerSchedule schedule, std::function<void()> tick) {
    return std::make_unique<ThreadTimer>(schedule, std::move(tick));
}

} // namespace tavelin::posix
