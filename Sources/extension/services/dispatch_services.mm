// Timers and queued work on the global queue of the utility class.
#import <dispatch/dispatch.h>

#include "extension/services/mac_services.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <utility>

namespace tavelin::mac {

namespace {

dispatch_queue_t utilityClassQueue() {
    return dispatch_get_global_queue(QOS_CLASS_UTILITY, 0);
}

/// What the timer and its handler share, so that the timer may go while a tick runs.
struct TickState {
    std::function<void()> tick;
    std::atomic<bool> cancelled = false;
};

class DispatchTimer final : public RepeatingTimer {
  public:
    DispatchTimer(TimerSchedule schedule, std::function<void()> tick)
        : schedule_(schedule), state_(std::make_shared<TickState>()) {
        state_->tick = std::move(tick);
    }

    ~DispatchTimer() override { cancel(); }

    // The source is made here rather than in the constructor because libdispatch does not allow
    // a source that was never activated to be let go.
    void start() override {
        MutexLock lock(mutex_);
        if (source_ != nil || state_->cancelled) {
            return;
        }
        source_ = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, utilityClassQueue());
        dispatch_source_set_timer(source_,
                                  dispatch_time(DISPATCH_TIME_NOW, schedule_.interval.count()),
                                  static_cast<std::uint64_t>(schedule_.interval.count()),
                                  static_cast<std::uint64_t>(schedule_.leeway.count()));
        const std::shared_ptr<TickState> state = state_;
        dispatch_source_set_event_handler(source_, ^{
            if (!state->cancelled) {
                state->tick();
            }
        });
        dispatch_activate(source_);
    }

    void cancel() noexcept override {
        MutexLock lock(mutex_);
        state_->cancelled = true;
        if (source_ != nil) {
            dispatch_source_cancel(source_);
        }
    }

  private:
    const TimerSchedule schedule_;
    const std::shared_ptr<TickState> state_;
    Mutex mutex_;
    dispatch_source_t source_ TAVELIN_GUARDED_BY(mutex_) = nil;
};

class GlobalUtilityQueue final : public UtilityQueue {
  public:
    void async(std::function<void()> work) override {
        dispatch_async(utilityClassQueue(), ^{
            work();
        });
    }
};

} // namespace

std::unique_ptr<RepeatingTimer> dispatchTimer(TimerSchedule schedule, std::function<void()> tick) {
    return std::make_unique<DispatchTimer>(schedule, std::move(tick));
}

std::shared_ptr<UtilityQueue> globalUtilityQueue() {
    return std::make_shared<GlobalUtilityQueue>();
}

} // namespace tavelin::mac
