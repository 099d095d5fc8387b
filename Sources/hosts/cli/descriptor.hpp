/// A file descriptor with an owner.
#pragma once

#include <unistd.h>
#include <utility>

namespace tavelin::cli {

/// Closes on destruction, for what was only read; close() answers, for what was written.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
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
    [[nodiscard]] int get() const noexcept { return descriptor_; }
    /// False with errno set when what was written may be lost.
    [[nodiscard]] bool close() noexcept { return ::close(std::exchange(descriptor_, -1)) == 0; }

  private:
    int descriptor_ = -1;
};

} // namespace tavelin::cli
