/// The mutex that guards all shared state, annotated so that clang's -Wthread-safety proves the
/// lock discipline: state is declared TAVELIN_GUARDED_BY(mutex_), functions that expect the lock
/// TAVELIN_REQUIRES(mutex_). std::mutex is invisible to that analysis.
///
/// Not recursive. Where two locks may be held at once, the owners' headers state the order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TAVELIN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TAVELIN_THREAD_ANNOTATION(x)
#endif

#define TAVELIN_CAPABILITY(name) TAVELIN_THREAD_ANNOTATION(capability(name))
#define TAVELIN_SCOPED_CAPABILITY TAVELIN_THREAD_ANNOTATION(scoped_lockable)
#define TAVELIN_GUARDED_BY(x) TAVELIN_THREAD_ANNOTATION(guarded_by(x))
#define TAVELIN_PT_GUARDED_BY(x) TAVELIN_THREAD_ANNOTATION(pt_guarded_by(x))
#define TAVELIN_ACQUIRED_BEFORE(...) TAVELIN_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define TAVELIN_ACQUIRED_AFTER(...) TAVELIN_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define TAVELIN_REQUIRES(...) TAVELIN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TAVELIN_ACQUIRE(...) TAVELIN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TAVELIN_RELEASE(...) TAVELIN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TAVELIN_TRY_ACQUIRE(...) TAVELIN_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TAVELIN_EXCLUDES(...) TAVELIN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TAVELIN_ASSERT_CAPABILITY(x) TAVELIN_THREAD_ANNOTATION(assert_capability(x))
#define TAVELIN_RETURN_CAPABILITY(x) TAVELIN_THREAD_ANNOTATION(lock_returned(x))
#define TAVELIN_NO_THREAD_SAFETY_ANALYSIS TAVELIN_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace tavelin {

class TAVELIN_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() TAVELIN_ACQUIRE() { native_.lock(); }
    void unlock() TAVELIN_RELEASE() { native_.unlock(); }
    [[nodiscard]] bool tryLock() TAVELIN_TRY_ACQUIRE(true) { return native_.try_lock(); }

    /// Tells the analysis, without any check at run time, that the caller holds this mutex.
    /// For callbacks that run under a lock which their signature cannot name.
    void assumeHeld() const TAVELIN_ASSERT_CAPABILITY(this) {}

  private:
    friend class ConditionVariable;
    std::mutex native_;
};

/// Holds a mutex from construction to the end of the scope.
class TAVELIN_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) TAVELIN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() TAVELIN_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

/// A condition variable for state guarded by a Mutex. Waits may end early: callers loop over
/// their condition, which also keeps the guarded state visible to the analysis.
class ConditionVariable {
  public:
    void wait(Mutex& mutex) TAVELIN_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native_, std::adopt_lock);
        native_.wait(held);
        held.release();
    }

    void waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline)
        TAVELIN_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native_, std::adopt_lock);
        native_.wait_until(held, deadline);
        held.release();
    }

    void notifyOne() { native_.notify_one(); }
    void notifyAll() { native_.notify_all(); }

  private:
    std::condition_variable native_;
};

} // namespace tavelin
