#include "support/replaced_services.hpp"

#include <atomic>

namespace tavelin::test {

struct ManualTimers::State {
    TimerSchedule schedule;
    std::function<void()> tick;
    std::atomic<bool> started = false;
    std::atomic<bool> cancelled = false;

    bool live() const { return started && !cancelled; }
};

class ManualTimers::Timer final : public RepeatingTimer {
  public:
    explicit Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~Timer() override { cancel(); }

    void start() override { state_->started = true; }
    void cancel() noexcept override { state_->cancelled = true; }

  private:
    const std::shared_ptr<State> state_;
};

std::unique_ptr<RepeatingTimer> ManualTimers::make(TimerSchedule schedule,
                                                   std::function<void()> tick) {
    auto state = std::make_shared<State>();
    state->schedule = schedule;
    state->tick = std::move(tick);
    MutexLock lock(mutex_);
    states_.push_back(state);
    return std::make_unique<Timer>(state);
}

void ManualTimers::tick() {
    std::vector<std::shared_ptr<State>> states;
    {
        MutexLock lock(mutex_);
        states = states_;
    }
    for (const auto& state : states) {
        if (state->live()) {
            state->tick();
        }
    }
}

std::vector<TimerSchedule> ManualTimers::live() {
    MutexLock lock(mutex_);
    std::vector<TimerSchedule> schedules;
    for (const auto& state : states_) {
        if (state->live()) {
            schedules.push_back(state->schedule);
        }
    }
    return schedules;
}

void ManualQueue::async(std::function<void()> work) {
    MutexLock lock(mutex_);
    waiting_.push_back(std::move(work));
}

std::size_t ManualQueue::run() {
    std::vector<std::function<void()>> ready;
    {
        MutexLock lock(mutex_);
        ready.swap(waiting_);
    }
    for (const auto& work : ready) {
        work();
    }
    return ready.size();
}

bool CapturedLog::isEnabled(LogLevel level, std::string_view, std::string_view) {
    MutexLock lock(mutex_);
    return level != LogLevel::kInfo || infoEnabled_;
}

void CapturedLog::write(LogLevel level, std::string_view, std::string_view category,
                        std::string_view message) noexcept {
    MutexLock lock(mutex_);
    try {
        lines_.push_back(std::string(level == LogLevel::kInfo ? "info " : "error ") +
                         std::string(category) + ": " + std::string(message));
    } catch (const std::bad_alloc&) {
        // Dropped, as the contract says.
    }
}

void CapturedLog::setInfoEnabled(bool enabled) {
    MutexLock lock(mutex_);
    infoEnabled_ = enabled;
}

std::vector<std::string> CapturedLog::takeLines() {
    MutexLock lock(mutex_);
    return std::exchange(lines_, {});
}

ReplacedServices::ReplacedServices() {
    Services replacement = *before_;
    replacement.makeTimer = [timers = timers_](TimerSchedule schedule, std::function<void()> tick) {
        return timers->make(schedule, std::move(tick));
    };
    replacement.utilityQueue = queue_;
    replacement.systemLog = log_;
    installServices(std::move(replacement));
}

ReplacedServices::~ReplacedServices() {
    installServices(*before_);
}

} // namespace tavelin::test
