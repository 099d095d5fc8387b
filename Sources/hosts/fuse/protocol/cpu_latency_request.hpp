/// Keeps idle processors from falling asleep while a mount is busy.
///
/// A request and its reply each wake a thread that has just begun to wait. The wait is a few
/// microseconds, but a processor that goes to sleep in it takes tens of microseconds to come back,
/// and in a virtual machine more, because sleeping and waking leave the machine: most of the time
/// of a small request then goes there. So while requests follow each other closely, the kernel is
/// asked, through its quality-of-service file for processors, to keep sleep shallow; once they have
/// stopped for a moment, no longer. The price is the electricity of that moment.
///
/// Only an administrator may ask this. For anybody else nothing happens.
#pragma once

#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <thread>

namespace tavelin::fusehost {

class CpuLatencyRequest {
  public:
    /// The kernel's file for it: as long as it is open, the 32-bit number last written to it is how
    /// many microseconds a processor may at most take to wake. See the kernel's "PM Quality Of
    /// Service Interface".
    static constexpr const char* kKernelFile = "/dev/cpu_dma_latency";

    /// With `wanted` false nothing will happen. Throws std::system_error when there is no thread.
    explicit CpuLatencyRequest(bool wanted, const std::filesystem::path& kernelFile = kKernelFile);
    ~CpuLatencyRequest();
    CpuLatencyRequest(const CpuLatencyRequest&) = delete;
    CpuLatencyRequest& operator=(const CpuLatencyRequest&) = delete;

    /// To be called for every request. Any thread; costs next to nothing.
    void noteRequest() noexcept {
        ++requests_;
        if (resting_) {
            wake();
        }
    }

  private:
    void wake() noexcept;
    void run();
    void holdRequest() TAVELIN_REQUIRES(lock_);
    void allow(int32_t microseconds) noexcept;

    int file_ = -1;
    const int32_t whileBusy_; // microseconds
    std::atomic<uint64_t> requests_{0};
    std::atomic<bool> resting_{false}; // the next request begins a busy time
    Mutex lock_;
    ConditionVariable changed_;
    bool ending_ TAVELIN_GUARDED_BY(lock_) = false;
    std::thread attendant_;
};

} // namespace tavelin::fusehost
