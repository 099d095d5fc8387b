/// The threads that serve a session's requests, in the leader/followers pattern.
///
/// One thread at a time is the leader: it waits for the next request and serves it itself. A
/// request about names or attributes takes less time than waking another thread, and a thread that
/// stays on its caller's processor answers soonest. Before a request that moves much data or waits
/// for the device, the leader hands leadership to a follower, which receives what comes meanwhile.
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
    WorkerThreads(fuse_session* session, CpuLatencyRequest& latency)
        : session_(session), latency_(latency) {}
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;

    /// Serves with up to `count` threads until the file system is unmounted or stop() is called; 0
    /// or a host errno, also when not even one thread can be started.
    int run(size_t count);

    /// Makes every worker end after the request it serves, and waits for that. Requests that the
    /// kernel sends afterwards are never answered. Callable while run() runs, from any thread that
    /// is not a worker.
    void stop();

  private:
    /// One worker's life: leads, serves what it handed over, and leads again.
    void serve() noexcept;
    /// Serves as the leader. True: `request` holds one to serve after giving up leadership. False:
    /// the session has ended.
    bool lead(fuse_buf& request) TAVELIN_REQUIRES(leader_);

    fuse_session* const session_;
    CpuLatencyRequest& latency_;
    /// Held by the leader while it receives. Its owner changes with each hand-over.
    Mutex leader_;
    /// Why the session ended; 0 for an unmount.
    std::atomic<int> error_{0};
    Mutex servingLock_;
    ConditionVariable ended_; // signalled when a worker has removed itself from serving_
    /// Workers that stop() may signal. Each removes itself before it ends, because signalling an
    /// ended thread is undefined.
    std::vector<pthread_t> serving_ TAVELIN_GUARDED_BY(servingLock_);
};

} // namespace tavelin::fusehost
