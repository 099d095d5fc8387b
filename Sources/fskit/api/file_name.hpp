/// A name as the kernel gives it: bytes that are usually, but not always, UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fskit {

/// A value that compares by its bytes. What it is made from is copied, up to the first NUL.
class FSFileName {
  public:
    FSFileName() = default;
    /// A NUL ends the name, as it does for the kernel.
    explicit FSFileName(std::string_view bytes) : data_(bytes.substr(0, bytes.find('\0'))) {}

    /// Becomes another name, in the memory of the one that it was.
    FSFileName& operator=(std::string_view bytes) {
        data_.assign(bytes.substr(0, bytes.find('\0')));
        return *this;
    }

    /// The bytes as they came, which need not be UTF-8.
    const std::string& data() const noexcept { return data_; }
    /// The text, absent when the bytes are not valid UTF-8.
    std::optional<std::string_view> string() const noexcept;

    friend bool operator==(const FSFileName&, const FSFileName&) = default;

  private:
    std::string data_;
};

} // namespace fskit
