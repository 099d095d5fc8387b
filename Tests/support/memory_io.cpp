#include "support/memory_io.hpp"

#include "support/temp_directory.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace tavelin::test {
namespace {

constexpr size_t kLogLimit = 10000;

} // namespace

MemoryIo::MemoryIo(std::vector<uint8_t> content, uint32_t blockSize) : bytes_(std::move(content)) {
    io_.size = bytes_.size();
    io_.block_size = blockSize;
    io_.read = [](void* self, void* buffer, uint64_t offset, uint64_t length) {
        auto& device = *static_cast<MemoryIo*>(self);
        const int32_t error = device.admit(Kind::kRead, offset, length);
        if (error == 0) {
            std::memcpy(buffer, device.bytes_.data() + offset, length);
        }
        return error;
    };
    io_.write = [](void* self, const void* buffer, uint64_t offset, uint64_t length) {
        return static_cast<MemoryIo*>(self)->take(Kind::kWrite, buffer, offset, length);
    };
    io_.sync = [](void* self) { return static_cast<MemoryIo*>(self)->admit(Kind::kSync, 0, 0); };
}

int32_t MemoryIo::take(Kind kind, const void* buffer, uint64_t offset, uint64_t length) {
    const int32_t error = admit(kind, offset, length);
    if (error == 0) {
        std::memcpy(bytes_.data() + offset, buffer, length);
    }
    return error;
}

MemoryIo MemoryIo::fromFile(const std::filesystem::path& image, uint32_t blockSize) {
    const std::string content = readFile(image);
    return MemoryIo({content.begin(), content.end()}, blockSize);
}

void MemoryIo::takeFileData() {
    io_.write_data = [](void* self, const void* buffer, uint64_t offset, uint64_t length) {
        return static_cast<MemoryIo*>(self)->take(Kind::kWriteData, buffer, offset, length);
    };
}

const ntb_io& MemoryIo::io() {
    io_.context = this;
    return io_;
}

void MemoryIo::save(const std::filesystem::path& image) const {
    std::ofstream(image, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes_.data()),
               static_cast<std::streamsize>(bytes_.size()));
}

void MemoryIo::fail(uint64_t first, uint64_t last, int32_t error) {
    failFirst_ = callCount_ + first;
    failLast_ = last == UINT64_MAX ? last : callCount_ + last;
    failError_ = error;
    failures_ = 0;
}

void MemoryIo::heal() {
    failFirst_ = UINT64_MAX;
    failLast_ = 0;
}

std::vector<MemoryIo::Call> MemoryIo::takeLog() {
    return std::exchange(log_, {});
}

bool MemoryIo::isAllowed(uint64_t offset, uint64_t length) const {
    const uint64_t block = io_.block_size < 2 ? 1 : io_.block_size;
    const bool isTail = offset + length == io_.size;
    return length != 0 && offset % block == 0 && (length % block == 0 || isTail) &&
           length <= io_.size && offset <= io_.size - length;
}

int32_t MemoryIo::admit(Kind kind, uint64_t offset, uint64_t length) {
    callCount_ += 1;
    if (log_.size() < kLogLimit) {
        log_.push_back({kind, offset, length});
    }
    if (callCount_ >= failFirst_ && callCount_ <= failLast_) {
        failures_ += 1;
        return failError_;
    }
    if (kind != Kind::kSync && !isAllowed(offset, length)) {
        violations_ += 1;
        return EINVAL;
    }
    return 0;
}

} // namespace tavelin::test
