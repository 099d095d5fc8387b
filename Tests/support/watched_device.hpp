// For tests of what stands on a volume: a block device over a sample volume that counts what comes
// through and fails on demand; and short ways to say what such tests say about errors. Any thread.
// Programs that include this link the core.
#pragma once

#include "core/file_block_device.hpp"
#include "core/ntfs_error.hpp"
#include "platform/mutex.hpp"
#include "support/bytes.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace tavelin::test {

class WatchedDevice final : public BlockDevice {
  public:
    explicit WatchedDevice(const SampleVolume& volume) : inner_(volume.image().string()) {}
    ~WatchedDevice() override {
        if (onGone) {
            onGone();
        }
    }

    std::uint64_t size() const noexcept override { return inner_.size(); }
    std::uint32_t blockSize() const noexcept override { return inner_.blockSize(); }

    std::int32_t read(std::byte* to, std::uint64_t offset, std::uint64_t length) noexcept override {
        return inner_.read(to, offset, length);
    }

    std::int32_t write(const std::byte* from, std::uint64_t offset,
                       std::uint64_t length) noexcept override {
        const MutexLock held(mutex_);
        return failure_ != 0 ? failure_ : inner_.write(from, offset, length);
    }

    // What it is told of is lost at once.
    std::int32_t discard(std::uint64_t offset, std::uint64_t length) noexcept override {
        const Bytes lost(length, std::byte{0xdd});
        return takesDiscards ? inner_.write(lost.data(), offset, length)
                             : inner_.discard(offset, length);
    }

    std::int32_t sync() noexcept override {
        if (onSync) {
            onSync();
        }
        const MutexLock held(mutex_);
        ++syncs_;
        return failure_;
    }

    // From now on writes and syncs answer this host errno; 0 heals.
    void fail(std::int32_t hostError) {
        const MutexLock held(mutex_);
        failure_ = hostError;
    }
    int syncs() {
        const MutexLock held(mutex_);
        return syncs_;
    }
    // Set before the device is used.
    bool takesDiscards = false;
    std::function<void()> onSync;
    std::function<void()> onGone;

  private:
    FileBlockDevice inner_;
    Mutex mutex_;
    int syncs_ TAVELIN_GUARDED_BY(mutex_) = 0;
    std::int32_t failure_ TAVELIN_GUARDED_BY(mutex_) = 0;
};

// The code an operation throws, 0 when it does not.
inline std::int32_t codeOf(const std::function<void()>& operation) {
    try {
        operation();
        return 0;
    } catch (const NTFSError& error) {
        return error.code;
    }
}

// The check of an independent tool finds nothing wrong.
inline void expectConsistent(const SampleVolume& volume) {
    EXPECT_EQ(volume.check().find("FAILED"), std::string::npos) << volume.check();
}

} // namespace tavelin::test
