// Threads of the utility class, and the queue that runs work on them.
#include "platform/mutex.hpp"
#include "platform/private/posix_services.hpp"

#include <csignal>
#include <deque>
#include <system_error>
#include <thread>

namespace tavelin::posix {

namespace {

/// At most kThreadsMax threads that serve one queue. A thread is made when work arrives and no
/// thread is idle; it never ends. Work that blocks therefore delays only what comes after
/// kThreadsMax pieces like it.
class ThreadQueue final : public UtilityQueue, public std::enable_shared_from_this<ThreadQueue> {
  public:
    void async(std::function<void()> work) override {
        MutexLock lock(mutex_);
        waiting_.push_back(std::move(work));
        // An idle thread may have been notified and not yet taken its work, so the comparison is
        // with the whole queue.
        if (waiting_.size() > idle_ && threads_ < kThreadsMax) {
            try {
                spawnUtilityThread([self = shared_from_this()] { self->serve(); });
                ++threads_;
            } catch (const std::system_error&) {
                // Without any thread the work would never run, so the caller is told. Otherwise
                // the existing threads take it when they are done.
                if (threads_ == 0) {
                    waiting_.pop_back();
                    throw;
                }
            }
        }
        arrived_.notifyOne();
    }

  private:
    static constexpr std::size_t kThreadsMax = 4;

    [[noreturn]] void serve() {
        for (;;) {
            // The work and what it owns are destroyed here, without the lock: a destructor may
            // queue more work.
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
    /// Not yet begun, oldest first.
    std::deque<std::function<void()>> waiting_ TAVELIN_GUARDED_BY(mutex_);
    /// Threads inside next().
    std::size_t idle_ TAVELIN_GUARDED_BY(mutex_) = 0;
    /// Threads made; never falls.
    std::size_t threads_ TAVELIN_GUARDED_BY(mutex_) = 0;
};

} // namespace

void spawnUtilityThread(std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigdelset(&all, SIGSYS); // raised by the thread's own system call, and handled in it
    // A new thread inherits the mask of its creator. Blocking first leaves no moment in which the
    // new thread could receive a signal.
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
    // Never destroyed: its threads still wait on it while the process exits.
    static const auto& queue = *new std::shared_ptr<UtilityQueue>(std::make_shared<ThreadQueue>());
    return queue;
}

} // namespace tavelin::posix
