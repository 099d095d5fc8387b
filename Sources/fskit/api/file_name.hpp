/// A name as the kernel gives it: bytes that are usually, but not always, UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fskit {

/// Immutable after construction; compares by its bytes. Every constructor copies and stops at an
/// embedded NUL.
class FSFileName {
  public:
    FSFileName() = default;
    explicit FSFileName(std::string_view bytes) : data_(bytes.substr(0, bytes.find('\0'))) {}

    const std::string& data() const noexcept { return data_; }
    /// The text, absent when the bytes are not valid UTF-8.
    std::optional<std::string_view> string() const noexcept;

    friend bool operator==(const FSFileName&, const FSFileName&) = default;

  private:
    std::string data_;
};

} // namespace fskit
