// A block-device resource in memory, which tests watch and hurt.
#pragma once

#include "fskit/api/resource.hpp"
#include "platform/mutex.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

namespace tavelin::test {

// `Base` is the kind of resource that a layer is offered, `Content` what a test has its bytes in.
// The fields are set before a request uses the resource, or while none does. Any thread.
template<typename Base, typename Content>
class MemoryResourceOf : public Base {
  public:
    enum class Call { read, write, metadataRead, metadataWrite, metadataFlush, flushToMedium };

    explicit MemoryResourceOf(Content content, std::uint64_t physical = 512)
        : bytes(std::move(content)), physicalBlock(physical) {}

    std::string BSDName() const override { return "disk7s2"; }
    bool isWritable() const override { return writable; }
    std::uint64_t blockSize() const override { return logicalBlock; }
    std::uint64_t blockCount() const override { return bytes.size() / logicalBlock; }
    std::uint64_t physicalBlockSize() const override { return physicalBlock; }

    std::size_t read(std::byte* to, std::uint64_t offset, std::size_t length) override {
        return copyOut(Call::read, to, offset, length);
    }
    std::size_t write(const std::byte* from, std::uint64_t offset, std::size_t length) override {
        return copyIn(Call::write, from, offset, length);
    }
    void metadataRead(std::byte* to, std::uint64_t offset, std::size_t length) override {
        copyOut(Call::metadataRead, to, offset, length);
    }
    void delayedMetadataWrite(const std::byte* from, std::uint64_t offset,
                              std::size_t length) override {
        copyIn(Call::metadataWrite, from, offset, length);
    }
    void metadataFlush() override { admit(Call::metadataFlush, 0, 0); }

    Content bytes;
    bool writable = true;
    std::uint64_t logicalBlock = 512;
    std::uint64_t physicalBlock;
    // Asked before each call, under the volume's lock: how many of the bytes may be moved, or it
    // throws. It must not send requests to the volume.
    std::function<std::size_t(Call, std::uint64_t offset, std::size_t length)> hook;

    int count(Call call) {
        const MutexLock held(mutex_);
        return counts_[static_cast<std::size_t>(call)];
    }

  protected:
    std::size_t admit(Call call, std::uint64_t offset, std::size_t length) {
        {
            const MutexLock held(mutex_);
            ++counts_[static_cast<std::size_t>(call)];
        }
        return hook ? hook(call, offset, length) : length;
    }

    virtual std::size_t copyIn(Call call, const std::byte* from, std::uint64_t offset,
                               std::size_t length) {
        const std::size_t admitted = admit(call, offset, length);
        std::memcpy(&bytes.at(offset), from, admitted);
        return admitted;
    }

  private:
    std::size_t copyOut(Call call, std::byte* to, std::uint64_t offset, std::size_t length) {
        const std::size_t admitted = admit(call, offset, length);
        std::memcpy(to, &bytes.at(offset), admitted);
        return admitted;
    }

    Mutex mutex_;
    std::array<int, 6> counts_ TAVELIN_GUARDED_BY(mutex_){};
};

} // namespace tavelin::test
