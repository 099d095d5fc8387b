/// The mutex that guards all shared state, annotated so that clang's -Wthread-safety proves the
/// lock discipline: state is declared TAVELIN_GUARDED_BY(mutex_), functions that expect the lock
/// TAVELIN_REQUIRES(mutex_). std::mutex is invisible to that analysis.
///
/// Not recursive. Where two locks may be held at once, platform/lock_order.hpp states the order.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// The annotations of clang's thread safety analysis, under names of our own. Other compilers see
// nothing, so the proof exists only in the clang builds.
#if defined(__clang__)
#define TAVELIN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TAVELIN_THREAD_ANNOTATION(x)
#endif

// Types: a lock, and an object that holds one for its scope.
#define TAVELIN_CAPABILITY(name) TAVELIN_THREAD_ANNOTATION(capability(name))
#define TAVELIN_SCOPED_CAPABILITY TAVELIN_THREAD_ANNOTATION(scoped_lockable)
// Members: the member itself, or what the pointer refers to, is accessed only under lock x.
#define TAVELIN_GUARDED_BY(x) TAVELIN_THREAD_ANNOTATION(guarded_by(x))
// Lock members: the order in which two locks are taken.
#define TAVELIN_ACQUIRED_BEFORE(...) TAVELIN_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define TAVELIN_ACQUIRED_AFTER(...) TAVELIN_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
// Functions: REQUIRES is called with the lock held, EXCLUDES without it, ACQUIRE returns with the
// lock held, RELEASE without it.
#define TAVELIN_REQUIRES(...) TAVELIN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TAVELIN_ACQUIRE(...) TAVELIN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TAVELIN_RELEASE(...) TAVELIN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TAVELIN_EXCLUDES(...) TAVELIN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// For code that the analysis cannot follow. Each use says why it is correct.
#define TAVELIN_ASSERT_CAPABILITY(x) TAVELIN_THREAD_ANNOTATION(assert_capability(x))
#define TAVELIN_NO_THREAD_SAFETY_ANALYSIS TAVELIN_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace tavelin {

/// A std::mutex that the analysis knows. It is usually a private member beside the state that it
/// guards, and is locked by MutexLock. Locking it twice on one thread is undefined behaviour.
class TAVELIN_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Waits without a limit. The calling thread unlocks it again.
    void lock() TAVELIN_ACQUIRE() { native_.lock(); }
    void unlock() TAVELIN_RELEASE() { native_.unlock(); }

    /// Tells the analysis, without any check at run time, that the caller holds this mutex.
    /// For callbacks that run under a lock which their signature cannot name.
    void assumeHeld() const TAVELIN_ASSERT_CAPABILITY(this) {}

  private:
    friend class ConditionVariable;
    /// What ConditionVariable waits with.
    std::mutex native_;
};

/// Holds a mutex from construction to the end of the scope. The mutex outlives it.
class TAVELIN_SCOPED_CAPABILITY MutexLock {
  public:
    /// Waits until the mutex is free.
    explicit MutexLock(Mutex& mutex) TAVELIN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() TAVELIN_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

/// A condition variable for state guarded by a Mutex. Waits may end early: callers loop over
/// their condition, which also keeps the guarded state visible to the analysis.
///
/// The mutex is released while a wait sleeps and held again when it returns. All waits on one
/// condition variable use the same mutex. The adopted lock is released, not unlocked, because the
/// caller's MutexLock still owns the mutex.
class ConditionVariable {
  public:
    /// Sleeps until a notification.
    void wait(Mutex& mutex) TAVELIN_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native_, std::adopt_lock);
        native_.wait(held);
        held.release();
    }

    /// Sleeps until a notification, at the longest until the deadline. The caller reads the clock
    /// to tell the two apart.
    void waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline)
        TAVELIN_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native_, std::adopt_lock);
        native_.wait_until(held, deadline);
        held.release();
    }

    /// Wakes one waiting thread, or all. The caller has changed the condition under the mutex and
    /// may have released it since.
    void notifyOne() { native_.notify_one(); }
    void notifyAll() { native_.notify_all(); }

  private:
    std::condition_variable native_;
};

} // namespace tavelin
