// The disk as the bridge has it.
#pragma once

#include "NTFSBridge/ntb.h"
#include "lab/disk.hpp"

#include <filesystem>

namespace tavelin::test {

// Must stay where it is while a volume is mounted over io(). One thread at a time.
class DiskIo : public DiskOf<std::vector<std::uint8_t>> {
  public:
    explicit DiskIo(std::vector<std::uint8_t> content, std::uint32_t blockSize = 512)
        : DiskOf(std::move(content)) {
        io_.size = bytes.size();
        io_.block_size = blockSize;
        io_.read = [](void* self, void* to, std::uint64_t offset, std::uint64_t length) {
            return static_cast<DiskIo*>(self)->answer(offset, length, [&](DiskIo& disk) {
                disk.copyOut(Call::read, static_cast<std::byte*>(to), offset, length);
            });
        };
        io_.write = [](void* self, const void* from, std::uint64_t offset, std::uint64_t length) {
            return static_cast<DiskIo*>(self)->take(Call::write, from, offset, length);
        };
        io_.sync = [](void* self) {
            return errorOf([&] { static_cast<DiskIo*>(self)->flush(Call::flush); });
        };
    }
    static DiskIo fromFile(const std::filesystem::path& image, std::uint32_t blockSize = 512) {
        const std::string content = readFile(image);
        return DiskIo({content.begin(), content.end()}, blockSize);
    }

    const ntb_io& io() {
        io_.context = this;
        return io_;
    }
    // From now on io() has a callback for file data.
    void takeFileData() {
        io_.write_data = [](void* self, const void* from, std::uint64_t offset,
                            std::uint64_t length) {
            return static_cast<DiskIo*>(self)->take(Call::fileData, from, offset, length);
        };
    }
    void save(const std::filesystem::path& image) const {
        writeFile(image, textOf(std::as_bytes(std::span(bytes))));
    }

    // Calls that broke the contract: misaligned, empty, or past the end.
    std::uint64_t violations() const { return violations_; }

  private:
    template<typename Transfer>
    static std::int32_t errorOf(Transfer&& transfer) {
        try {
            transfer();
            return 0;
        } catch (const DiskFailure& failure) {
            return failure.error;
        }
    }

    template<typename Transfer>
    std::int32_t answer(std::uint64_t offset, std::uint64_t length, Transfer&& transfer) {
        if (!isAllowed(offset, length)) {
            ++violations_;
            return EINVAL;
        }
        return errorOf([&] { transfer(*this); });
    }

    std::int32_t take(Call call, const void* from, std::uint64_t offset, std::uint64_t length) {
        return answer(offset, length, [&](DiskIo& disk) {
            disk.copyIn(call, static_cast<const std::byte*>(from), offset, length);
        });
    }

    bool isAllowed(std::uint64_t offset, std::uint64_t length) const {
        const std::uint64_t block = io_.block_size < 2 ? 1 : io_.block_size;
        const bool isTail = offset + length == io_.size;
        return length != 0 && offset % block == 0 && (length % block == 0 || isTail) &&
               length <= io_.size && offset <= io_.size - length;
    }

    ntb_io io_ = {};
    std::uint64_t violations_ = 0;
};

} // namespace tavelin::test
