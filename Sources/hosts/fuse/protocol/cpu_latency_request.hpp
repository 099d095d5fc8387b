/// Asks the kernel to keep processors out of deep idle states while a mount is busy (PM QoS).
///
/// Each request and each reply wakes a thread that has just begun to wait. A processor that enters
/// a deep idle state in those few microseconds needs tens of microseconds to leave it, more in a
/// virtual machine, where idling exits to the hypervisor. The request is held while file-system
/// requests follow each other and is dropped after kIdleTimeout without one.
///
/// The request applies to every processor of the system and costs power, so a mount makes it only
/// with `-o low_latency`. The kernel lets only an administrator make it; for anybody else this
/// class does nothing.
#pragma once

#include "platform/file_descriptor.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <thread>

namespace tavelin::fusehost {

class CpuLatencyRequest {
  public:
    /// While this file is open, the 32-bit number last written to it is the longest wake-up
    /// latency, in microseconds, that the kernel may choose. See the kernel's "PM Quality Of
    /// Service Interface".
    static constexpr const char* kKernelFile = "/dev/cpu_dma_latency";

    /// Opens what it needs, once and for all. With `wanted` false no request is ever made.
    explicit CpuLatencyRequest(bool wanted, const std::filesystem::path& kernelFile = kKernelFile);
    ~CpuLatencyRequest();
    CpuLatencyRequest(const CpuLatencyRequest&) = delete;
    CpuLatencyRequest& operator=(const CpuLatencyRequest&) = delete;

    /// Makes the first request. Throws std::system_error when there is no thread.
    void start();

    /// To be called for every request. Any thread; costs next to nothing.
    void noteRequest() noexcept {
        ++requests_;
        if (idle_) {
            wake();
        }
    }

  private:
    /// Has the thread make the request again.
    void wake() noexcept;
    /// The thread: makes the request while file-system requests come, and drops it after
    /// kIdleTimeout.
    void run();
    /// Returns when no file-system request has come for kIdleTimeout, or the thread is to end.
    void holdRequest() TAVELIN_REQUIRES(lock_);
    /// Tells the kernel the longest wake-up latency that it may choose.
    void allow(int32_t microseconds) noexcept;

    const FileDescriptor file_; // closing it drops the request
    const int32_t busyLatency_; // microseconds
    std::atomic<uint64_t> requests_{0};
    std::atomic<bool> idle_{false}; // the request is dropped; the next noteRequest() makes it again
    Mutex lock_;
    ConditionVariable changed_;
    bool ending_ TAVELIN_GUARDED_BY(lock_) = false;
    std::thread thread_;
};

} // namespace tavelin::fusehost
