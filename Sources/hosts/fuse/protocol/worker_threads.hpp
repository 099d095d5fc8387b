/// The threads that serve a session's requests.
///
/// All of them wait in the kernel for the next request, and the kernel wakes the one that has
/// waited longest. A single thread that waits again after each reply is slower where processors go
/// to sleep quickly, as in virtual machines: it stays on a processor of its own, so that both the
/// request and the reply wake a sleeping one. Of threads that take turns some were last on the
/// processor of the caller, and are woken there.
///
/// Requests that move data or wait for the device are served side by side, all others one at a
/// time.
#pragma once

#include "hosts/fuse/protocol/cpu_latency_request.hpp"
#include "platform/mutex.hpp"

#include <cstddef>
#include <thread>
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
    /// or a host errno, also when not even one thread can be started. To be called once.
    int run(size_t count);

    /// Makes every worker end after the request it serves, and waits for that. Requests that the
    /// kernel sends afterwards are never answered. Callable while run() runs, from any thread that
    /// is not a worker.
    void stop();

  private:
    /// Starts the workers; 0 or a host errno when there is not even one.
    int start(size_t count);
    /// One worker's life.
    void serve() noexcept;
    /// Waits for the next request. False: the session has ended.
    bool receive(fuse_buf& request);

    fuse_session* const session_;
    CpuLatencyRequest& latency_;
    /// Held while a request is served that must be the only one.
    Mutex turn_;
    Mutex workersLock_;
    ConditionVariable ended_; // signalled when a worker ends
    /// Ended ones stay until run() returns: signalling one that has been joined is undefined.
    std::vector<std::thread> workers_ TAVELIN_GUARDED_BY(workersLock_);
    size_t serving_ TAVELIN_GUARDED_BY(workersLock_) = 0;
    /// Why the session ended; 0 for an unmount.
    int error_ TAVELIN_GUARDED_BY(workersLock_) = 0;
};

} // namespace tavelin::fusehost
