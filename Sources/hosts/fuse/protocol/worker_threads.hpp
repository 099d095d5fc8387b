/// The threads that serve a session's requests.
///
/// One thread at a time leads: it waits for the next request and serves it itself, because a
/// request about names or attributes takes less time than waking another thread would, and a thread
/// that stays on its caller's processor answers soonest. Before a request that moves much data or
/// waits for the device the leader steps down, so that the next thread takes what comes meanwhile.
#pragma once

#include "hosts/fuse/protocol/cpu_latency_request.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstddef>
#include <pthread.h>
#include <vector>

struct fuse_buf;
struct fuse_session;

namespace tavelin::fusehost {

class WorkerThreads {
  public:
    /// Both must outlive this.
    WorkerThreads(fuse_session* session, CpuLatencyRequest& wakefulness)
        : session_(session), wakefulness_(wakefulness) {}
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Serves with up to `count` threads until the file system is unmounted or stop() is called; 0
    /// or a host errno, also when not even one thread can be started.
    int run(size_t count);

    /// Ends run() once the requests being served are answered; what the kernel sends after that is
    /// cut off. Waits for that. May be called while run() runs, from any thread but those it has.
    void stop();

  private:
    void serve() noexcept;
    /// Serves as the leader until there is a request to step down for (true) or the end (false).
    bool lead(fuse_buf& request) TAVELIN_REQUIRES(leader_);

    fuse_session* const session_;
    CpuLatencyRequest& wakefulness_;
    Mutex leader_;
    std::atomic<int> error_{0};
    Mutex servingLock_;
    ConditionVariable ended_; // one thread fewer serves
    /// Those that may be woken: a thread takes itself out before it ends.
    std::vector<pthread_t> serving_ TAVELIN_GUARDED_BY(servingLock_);
};

} // namespace tavelin::fusehost
