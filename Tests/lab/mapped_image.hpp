// A volume's bytes without a copy of them: a file, or pages shared with others until they are
// written to.
#pragma once

#include "platform/file_descriptor.hpp"
#include "support/bytes.hpp"

#include <algorithm>
#include <fcntl.h>
#include <span>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin::test {

// Throws std::system_error where it cannot be made.
class MappedImage {
  public:
    // The file itself: what is written is in it at once.
    static MappedImage ofFile(const std::filesystem::path& file) {
        const FileDescriptor opened(checked(::open(file.c_str(), O_RDWR | O_CLOEXEC)));
        struct stat status {};
        checked(::fstat(opened.get(), &status));
        return {opened.get(), static_cast<std::size_t>(status.st_size), MAP_SHARED};
    }

    MappedImage(int descriptor, std::size_t size, int flags)
        : bytes_(static_cast<std::byte*>(
                     ::mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, descriptor, 0)),
                 size) {
        if (bytes_.data() == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
    }
    MappedImage(MappedImage&& other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}
    MappedImage(const MappedImage&) = delete;
    MappedImage& operator=(const MappedImage&) = delete;
    ~MappedImage() {
        if (!bytes_.empty()) {
            ::munmap(bytes_.data(), bytes_.size());
        }
    }

    std::byte* data() { return bytes_.data(); }
    std::size_t size() const { return bytes_.size(); }
    std::byte& operator[](std::size_t at) { return bytes_[at]; }
    const std::byte& operator[](std::size_t at) const { return bytes_[at]; }
    operator std::span<std::byte>() { return bytes_; }

  private:
    friend class SharedImage;
    static int checked(int result) {
        return result >= 0 ? result
                           : throw std::system_error(errno, std::generic_category(), "an image");
    }

    std::span<std::byte> bytes_;
};

// An image of which any number of disks begin as a copy, each at the price of what it writes.
class SharedImage {
  public:
    explicit SharedImage(std::span<const std::byte> content)
        : memory_(MappedImage::checked(::memfd_create("image", MFD_CLOEXEC))),
          whole_(sized(memory_.get(), content.size()), content.size(), MAP_SHARED) {
        std::ranges::copy(content, whole_.data());
    }

    std::span<const std::byte> content() const { return whole_.bytes_; }
    MappedImage copy() const { return {memory_.get(), whole_.size(), MAP_PRIVATE}; }

  private:
    static int sized(int descriptor, std::size_t size) {
        MappedImage::checked(::ftruncate(descriptor, static_cast<off_t>(size)));
        return descriptor;
    }

    FileDescriptor memory_;
    MappedImage whole_;
};

} // namespace tavelin::test
