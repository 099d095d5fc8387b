// The disk as hosts offer it.
#pragma once

#include "fskit/api/resource.hpp"
#include "lab/disk.hpp"
#include "platform/error_numbers.hpp"

#include <string>

namespace tavelin::test {

// `Base` is the kind of resource that a layer is offered.
template<typename Base, typename Content>
class DiskResourceOf : public Base, public DiskOf<Content> {
  public:
    using Call = DiskCall;

    explicit DiskResourceOf(Content content, std::uint64_t physical = 512)
        : DiskOf<Content>(std::move(content)), physicalBlock(physical) {}

    std::string BSDName() const override { return "disk7s2"; }
    bool isWritable() const override { return writable; }
    std::uint64_t blockSize() const override { return logicalBlock; }
    std::uint64_t blockCount() const override { return this->bytes.size() / logicalBlock; }
    std::uint64_t physicalBlockSize() const override { return physicalBlock; }

    std::size_t read(std::byte* to, std::uint64_t offset, std::size_t length) override {
        return asked([&] { return this->copyOut(Call::read, to, offset, length); });
    }
    std::size_t write(const std::byte* from, std::uint64_t offset, std::size_t length) override {
        return asked([&] { return this->copyIn(Call::write, from, offset, length); });
    }
    void metadataRead(std::byte* to, std::uint64_t offset, std::size_t length) override {
        asked([&] { this->copyOut(Call::metadataRead, to, offset, length); });
    }
    void delayedMetadataWrite(const std::byte* from, std::uint64_t offset,
                              std::size_t length) override {
        asked([&] { this->copyIn(Call::metadataWrite, from, offset, length); });
    }
    void metadataFlush() override {
        asked([&] { this->flush(Call::metadataFlush); });
    }

    bool writable = true;
    std::uint64_t logicalBlock = 512;
    std::uint64_t physicalBlock;

  protected:
    // Its own failures become those that a host answers.
    template<typename Transfer>
    static auto asked(Transfer&& transfer) {
        try {
            return transfer();
        } catch (const DiskFailure& failure) {
            throw fskit::fs_errorForPOSIXError(fromHost(failure.error));
        }
    }
};

} // namespace tavelin::test
