// Threads of the utility class, and the queue that runs work on them.
#include "platform/mutex.hpp"
#include "platform/private/posix_services.hpp"

#include <csignal>
#include <deque>
#include <system_error>
#include <thread>

namespace tavelin::posix {

namespace {

/// A few threads, made as work finds none idle, that wait for more and never end.
class ThreadQueue final : public UtilityQueue, public std::enable_shared_from_this<ThreadQueue> {
  public:
    void async(std::function<void()> work) override {
        MutexLock lock(mutex_);
        waiting_.push_back(std::move(work));
        if (waiting_.size() > idle_ && threads_ < kThreadsMax) {
            try {
                spawnUtilityThread([self = shared_from_this()] { self->serve(); });
                ++threads_;
            } catch (const std::system_error&) {
                if (threads_ == 0) {
                    waiting_.pop_back();
                    throw;
                }
                // The threads there are will get to it.
            }
        }
        arrived_.notifyOne();
    }

  private:
    static constexpr std::size_t kThreadsMax = 4;

    [[noreturn]] void serve() {
        for (;;) {
            const std::function<void()> work = next();
            work();
        }
    }

    std::function<void()> next() {
        MutexLock lock(mutex_);
        ++idle_;
        while (waiting_.empty()) {
            arrived_.wait(mutex_);
        }
        --idle_;
        std::function<void()> work = std::move(waiting_.front());
        waiting_.pop_front();
        return work;
    }

    Mutex mutex_;
    ConditionVariable arrived_;
    std::deque<std::function<void()>> waiting_ TAVELIN_GUARDED_BY(mutex_);
    std::size_t idle_ TAVELIN_GUARDED_BY(mutex_) = 0;
    std::size_t threads_ TAVELIN_GUARDED_BY(mutex_) = 0;
};

} // namespace

void spawnUtilityThread(std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // A new thread inherits the mask, so no signal can slip in before it sets its own.
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread(std::move(body)).detach();
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::shared_ptr<UtilityQueue> utilityQueue() {
    static const auto& queue = *new std::shared_ptr<UtilityQueue>(std::make_shared<ThreadQueue>());
    return queue;
}

} // namespace tavelin::posix
