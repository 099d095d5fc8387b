/// A file descriptor with one owner, for the command line's system calls.
#pragma once

#include <unistd.h>
#include <utility>

namespace tavelin::cli {

/// Owns at most one descriptor. Move-only; one thread at a time.
///
/// The destructor closes and drops the result, which is right for files that were only read. A file
/// that was written is closed by close(), whose result counts: some file systems report a failed
/// write only there.
class Descriptor {
  public:
    Descriptor() = default;
    /// Takes over a descriptor as open() returned it; a negative one makes an empty owner.
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    /// The old descriptor is closed by the destructor of `other`.
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~Descriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }

    explicit operator bool() const noexcept { return descriptor_ >= 0; }
    /// The number, which stays owned; -1 when empty.
    [[nodiscard]] int get() const noexcept { return descriptor_; }
    /// Closes, and is empty afterwards. False with errno set when written data may be lost. Must
    /// hold a descriptor. The call is never repeated: after a failure the number may already belong
    /// to another file.
    [[nodiscard]] bool close() noexcept { return ::close(std::exchange(descriptor_, -1)) == 0; }

  private:
    int descriptor_ = -1;
};

} // namespace tavelin::cli
