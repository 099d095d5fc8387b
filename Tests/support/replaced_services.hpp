// Platform services that a test drives and watches: timers that tick on demand, a queue that runs
// on demand, a system log that keeps its lines.
#pragma once

#include "platform/mutex.hpp"
#include "platform/services.hpp"

#include <memory>
#include <string>
#include <vector>

namespace tavelin::test {

class ManualTimers {
  public:
    std::unique_ptr<RepeatingTimer> make(TimerSchedule schedule, std::function<void()> tick);

    // One tick of every live timer, on the calling thread.
    void tick();
    // The schedules of the timers that are started and not cancelled.
    std::vector<TimerSchedule> live();

  private:
    class Timer;
    struct State;
    Mutex mutex_;
    std::vector<std::shared_ptr<State>> states_ TAVELIN_GUARDED_BY(mutex_);
};

class ManualQueue final : public UtilityQueue {
  public:
    void async(std::function<void()> work) override;

    // Runs what is waiting, on the calling thread; answers how many pieces of work that were.
    std::size_t run();

  private:
    Mutex mutex_;
    std::vector<std::function<void()>> waiting_ TAVELIN_GUARDED_BY(mutex_);
};

class CapturedLog final : public SystemLog {
  public:
    bool isEnabled(LogLevel level, std::string_view, std::string_view) override;
    void write(LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) noexcept override;

    void setInfoEnabled(bool enabled);
    // Each line as "info fs: text", the category after the level; forgets them.
    std::vector<std::string> takeLines();

  private:
    Mutex mutex_;
    bool infoEnabled_ TAVELIN_GUARDED_BY(mutex_) = true;
    std::vector<std::string> lines_ TAVELIN_GUARDED_BY(mutex_);
};

// Installs the three above for its lifetime, then puts back what was there. What a test makes
// before it ends may outlive it only if it uses none of them any more.
class ReplacedServices {
  public:
    ReplacedServices();
    ~ReplacedServices();
    ReplacedServices(const ReplacedServices&) = delete;
    ReplacedServices& operator=(const ReplacedServices&) = delete;

    ManualTimers& timers() { return *timers_; }
    ManualQueue& queue() { return *queue_; }
    CapturedLog& log() { return *log_; }

  private:
    const std::shared_ptr<const Services> before_ = services();
    const std::shared_ptr<ManualTimers> timers_ = std::make_shared<ManualTimers>();
    const std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>();
    const std::shared_ptr<CapturedLog> log_ = std::make_shared<CapturedLog>();
};

} // namespace tavelin::test
