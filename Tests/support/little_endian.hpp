// Numbers as NTFS and partition tables store them.
#pragma once

#include <cstdint>
#include <string>

namespace tavelin::test {

inline std::string littleEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>(value >> (8 * i));
    }
    return text;
}

} // namespace tavelin::test
