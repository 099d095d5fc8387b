/// Text and memory on their way into and out of the bridge.
#pragma once

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace tavelin {

/// A text as the bridge wants it, NUL-terminated. Anything as short as a file name (255 UTF-16
/// units are at most 765 bytes of UTF-8) is copied without allocating.
class BridgeText {
  public:
    explicit BridgeText(std::string_view text);
    BridgeText(const BridgeText&) = delete;
    BridgeText& operator=(const BridgeText&) = delete;

    /// Throws NTFSError kEINVAL when the text has a NUL inside: the bridge would see only the part
    /// before it, and work on another name than was asked for.
    [[nodiscard]] const char* cString() const;

  private:
    std::array<char, 1024> small_; // left unset on purpose, see the constructor
    std::string large_;
    const char* terminated_ = nullptr;
};

struct FreeDeleter {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// Owns memory that the bridge allocated.
template<typename T>
using BridgeOwned = std::unique_ptr<T, FreeDeleter>;

} // namespace tavelin
