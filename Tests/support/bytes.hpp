// Text and files as bytes, and back.
#pragma once

#include "support/temp_directory.hpp"

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::test {

using Bytes = std::vector<std::byte>;

inline std::span<const std::byte> bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text));
}

inline std::string textOf(std::span<const std::byte> data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

// As readFile().
inline Bytes loadImage(const std::filesystem::path& image) {
    const std::string raw = readFile(image);
    const auto bytes = bytesOf(raw);
    return {bytes.begin(), bytes.end()};
}

} // namespace tavelin::test
