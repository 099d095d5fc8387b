#include "hosts/fuse/protocol/cpu_latency_request.hpp"

#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

// The latency request is dropped when no file-system request has come for this long.
constexpr std::chrono::milliseconds kIdleTimeout{10};

constexpr int32_t kLatencyUnlimited = 2'000'000'000; // the kernel's own default, in microseconds

// In a virtual machine even the lightest idle state exits to the hypervisor, so idling has to be
// avoided altogether. On hardware the lightest state costs a microsecond or two and is allowed.
int32_t chooseBusyLatency() {
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
    : file_(wanted ? FileDescriptor(kernelFile.c_str(), O_WRONLY) : FileDescriptor()),
      busyLatency_(chooseBusyLatency()) {}

void CpuLatencyRequest::start() {
    if (file_) { // else it is not wanted, not allowed, or not known to this kernel
        thread_ = std::thread([this] { run(); });
    }
}

CpuLatencyRequest::~CpuLatencyRequest() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const MutexLock held(lock_);
        ending_ = true;
        changed_.notifyAll();
    }
    thread_.join();
}

void CpuLatencyRequest::wake() noexcept {
    const MutexLock held(lock_);
    idle_ = false;
    changed_.notifyAll();
}

void CpuLatencyRequest::run() {
    const MutexLock held(lock_);
    while (!ending_) {
        if (idle_) {
            changed_.wait(lock_);
        } else {
            holdRequest();
        }
    }
}

void CpuLatencyRequest::holdRequest() {
    allow(busyLatency_);
    uint64_t before = 0;
    do {
        before = requests_;
        idle_ = false;
        changed_.waitUntil(lock_, std::chrono::steady_clock::now() + kIdleTimeout);
        // Set before the count is compared: a request that the comparison misses then sees idle_
        // and calls wake().
        idle_ = true;
    } while (!ending_ && requests_ != before);
    allow(kLatencyUnlimited);
}

void CpuLatencyRequest::allow(int32_t microseconds) noexcept {
    // A failure is dropped: the mount is slower without the request, not wrong.
    (void)file_.write(&microseconds, sizeof microseconds);
}

} // namespace tavelin::fusehost
