#include "hosts/fuse/protocol/cpu_latency_request.hpp"

#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

// A busy time ends when no request has come for so long.
constexpr std::chrono::milliseconds kIdleTimeout{10};

constexpr int32_t kDeepSleep = 2'000'000'000; // the kernel's own default, in microseconds

// A processor of a virtual machine leaves the machine even for the lightest sleep, so there it has
// to stay awake; a real one comes back from that in a microsecond or two, and may take it.
int32_t shallowSleep() {
    std::ifstream processors("/proc/cpuinfo");
    for (std::string line; std::getline(processors, line);) {
        if (line.starts_with("flags") && line.find(" hypervisor") != std::string::npos) {
            return 0;
        }
    }
    return 2;
}

} // namespace

CpuLatencyRequest::CpuLatencyRequest(bool wanted, const std::filesystem::path& kernelFile)
    : file_(wanted ? ::open(kernelFile.c_str(), O_WRONLY | O_CLOEXEC) : -1),
      whileBusy_(shallowSleep()) {
    if (file_ == -1) {
        return; // not wanted, not allowed, or not known to this kernel
    }
    attendant_ = std::thread([this] { run(); });
}

CpuLatencyRequest::~CpuLatencyRequest() {
    if (file_ == -1) {
        return;
    }
    {
        const MutexLock held(lock_);
        ending_ = true;
        changed_.notifyAll();
    }
    attendant_.join();
    ::close(file_); // and with it goes what was asked; nothing was stored that could be lost
}

void CpuLatencyRequest::wake() noexcept {
    const MutexLock held(lock_);
    resting_ = false;
    changed_.notifyAll();
}

void CpuLatencyRequest::run() {
    const MutexLock held(lock_);
    while (!ending_) {
        if (resting_) {
            changed_.wait(lock_);
        } else {
            holdRequest();
        }
    }
}

void CpuLatencyRequest::holdRequest() {
    allow(whileBusy_);
    uint64_t before = 0;
    do {
        before = requests_;
        resting_ = false;
        changed_.waitUntil(lock_, std::chrono::steady_clock::now() + kIdleTimeout);
        resting_ = true; // before the look at the count, so that no request is missed by both
    } while (!ending_ && requests_ != before);
    allow(kDeepSleep);
}

void CpuLatencyRequest::allow(int32_t microseconds) noexcept {
    // A failure is dropped: requests are slower then and otherwise the same.
    (void)!::write(file_, &microseconds, sizeof microseconds);
}

} // namespace tavelin::fusehost
