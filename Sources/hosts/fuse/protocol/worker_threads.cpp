#include "hosts/fuse/protocol/worker_threads.hpp"

#include "diagnostics/log.hpp"
#include "hosts/fuse/libfuse.hpp"

#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <linux/fs.h>
#include <linux/fuse.h>
#include <system_error>
#include <thread>

namespace tavelin::fusehost {

namespace {

constexpr auto kResendInterval = std::chrono::milliseconds(20);

// Interrupts a thread's wait for the next request; the handler itself has nothing to do.
constexpr int kWakeSignal = SIGUSR1;

void installWakeSignal() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(kWakeSignal, &action, nullptr); // cannot fail for a signal that can be caught
}

void admitWakeSignal() {
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, kWakeSignal);
    ::pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
}

// Whether others may be served meanwhile: those that take long, and none about names.
bool isServedBesideOthers(const fuse_buf& request) {
    const auto& header = *static_cast<const fuse_in_header*>(request.mem);
    const void* arguments = &header + 1;
    switch (header.opcode) {
    case FUSE_READ:
    case FUSE_WRITE:
    case FUSE_FSYNC:
    case FUSE_FSYNCDIR:
        return true;
    case FUSE_IOCTL: // others, such as isatty(3) makes, are refused at once
        return static_cast<const fuse_ioctl_in*>(arguments)->cmd == FITRIM;
    default:
        return false;
    }
}

} // namespace

int WorkerThreads::run(size_t count) {
    if (const int failed = start(count); failed != 0) {
        return failed;
    }
    {
        const MutexLock held(workersLock_);
        while (serving_ == workers_.size()) {
            ended_.wait(workersLock_);
        }
    }
    stop(); // an unmount ends all of them, a failed receive only one
    std::vector<std::thread> ended;
    const MutexLock held(workersLock_);
    ended.swap(workers_);
    for (std::thread& worker : ended) {
        worker.join();
    }
    return error_;
}

int WorkerThreads::start(size_t count) {
    installWakeSignal(); // before there is a worker that stop() could end the process by
    const MutexLock held(workersLock_);
    workers_.reserve(count);
    try {
        while (workers_.size() < count) {
            workers_.emplace_back([this] { serve(); });
            ++serving_;
        }
    } catch (const std::system_error& failure) {
        if (workers_.empty()) {
            return failure.code().value();
        }
        log().error(fmt::format("serving with {} threads of {}: {}", workers_.size(), count,
                                failure.code().message()));
    }
    return 0;
}

void WorkerThreads::stop() {
    fuse_session_exit(session_);
    const MutexLock held(workersLock_);
    while (serving_ > 0) {
        for (std::thread& worker : workers_) {
            ::pthread_kill(worker.native_handle(), kWakeSignal); // one that has ended takes none
        }
        // A signal that arrives after a worker has tested for the end and before it blocks in the
        // next receive is lost. Sending it again until the worker is gone closes that window.
        ended_.waitUntil(workersLock_, std::chrono::steady_clock::now() + kResendInterval);
    }
}

void WorkerThreads::serve() noexcept {
    admitWakeSignal();
    fuse_buf request{};
    while (receive(request)) {
        if (isServedBesideOthers(request)) {
            fuse_session_process_buf(session_, &request);
        } else {
            const MutexLock held(turn_);
            fuse_session_process_buf(session_, &request);
        }
    }
    std::free(request.mem);
    const MutexLock held(workersLock_);
    --serving_;
    ended_.notifyAll();
}

bool WorkerThreads::receive(fuse_buf& request) {
    while (fuse_session_exited(session_) == 0) {
        const int got = fuse_session_receive_buf(session_, &request);
        if (got == -EINTR || got == -EAGAIN) {
            continue;
        }
        if (got > 0) {
            latency_.noteRequest();
            return true;
        }
        if (got < 0) {
            const MutexLock held(workersLock_);
            error_ = -got;
        }
        fuse_session_exit(session_);
    }
    return false;
}

} // namespace tavelin::fusehost
