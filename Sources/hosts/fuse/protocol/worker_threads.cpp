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

constexpr uint32_t kHandOffBytesMin = 64 << 10; // bytes
constexpr auto kResendInterval = std::chrono::milliseconds(20);

// Interrupts a thread's wait for the next request; the handler itself has nothing to do.
constexpr int kWakeSignal = SIGUSR1;

void installWakeSignal() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(kWakeSignal, &action, nullptr); // cannot fail for a signal that can be caught
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, kWakeSignal);
    ::pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
}

// Whether serving the request takes longer than waking a follower to receive the next one.
bool shouldHandOff(const fuse_buf& request) {
    const auto& header = *static_cast<const fuse_in_header*>(request.mem);
    const void* arguments = &header + 1;
    switch (header.opcode) {
    case FUSE_READ:
        return static_cast<const fuse_read_in*>(arguments)->size >= kHandOffBytesMin;
    case FUSE_WRITE:
        return static_cast<const fuse_write_in*>(arguments)->size >= kHandOffBytesMin;
    case FUSE_IOCTL: // others, such as isatty(3) makes, are refused at once
        return static_cast<const fuse_ioctl_in*>(arguments)->cmd == FITRIM;
    case FUSE_FSYNC:
    case FUSE_FSYNCDIR:
        return true;
    default:
        return false;
    }
}

} // namespace

int WorkerThreads::run(size_t count) {
    {
        const MutexLock held(servingLock_);
        serving_.reserve(count);
    }
    std::vector<std::thread> threads;
    threads.reserve(count);
    try {
        while (threads.size() < count) {
            threads.emplace_back([this] { serve(); });
        }
    } catch (const std::system_error& failure) {
        if (threads.empty()) {
            return failure.code().value();
        }
        log().error(fmt::format("serving with {} threads of {}: {}", threads.size(), count,
                                failure.code().message()));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return error_;
}

void WorkerThreads::stop() {
    fuse_session_exit(session_);
    const MutexLock held(servingLock_);
    while (!serving_.empty()) {
        for (const pthread_t thread : serving_) {
            ::pthread_kill(thread, kWakeSignal);
        }
        // A signal that arrives after a worker has tested for the end and before it blocks in the
        // next receive is lost. Sending it again until the worker is gone closes that window.
        ended_.waitUntil(servingLock_, std::chrono::steady_clock::now() + kResendInterval);
    }
}

void WorkerThreads::serve() noexcept {
    installWakeSignal();
    {
        const MutexLock held(servingLock_);
        serving_.push_back(::pthread_self());
    }
    fuse_buf request{};
    for (;;) {
        {
            const MutexLock held(leader_);
            if (!lead(request)) {
                break;
            }
        }
        fuse_session_process_buf(session_, &request);
    }
    std::free(request.mem);
    const MutexLock held(servingLock_);
    std::erase(serving_, ::pthread_self());
    ended_.notifyAll();
}

bool WorkerThreads::lead(fuse_buf& request) {
    while (fuse_session_exited(session_) == 0) {
        const int got = fuse_session_receive_buf(session_, &request);
        if (got == -EINTR || got == -EAGAIN) {
            continue;
        }
        if (got <= 0) {
            error_ = -got;
            fuse_session_exit(session_);
            return false;
        }
        latency_.noteRequest();
        if (shouldHandOff(request)) {
            return true;
        }
        fuse_session_process_buf(session_, &request);
    }
    return false;
}

} // namespace tavelin::fusehost
