// Text as bytes and back.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace tavelin::test {

inline std::span<const std::byte> bytesOf(std::string_view text) {
    return std::as_bytes(std::span(text));
}

inline std::string textOf(std::span<const std::byte> data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

} // namespace tavelin::test
