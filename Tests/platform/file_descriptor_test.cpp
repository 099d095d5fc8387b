#include "platform/file_descriptor.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace tavelin {
namespace {

TEST(FileDescriptor, WritesMorePartsThanOneSystemCallTakes) {
    constexpr std::uint64_t kOffset = 3;
    char path[] = "/tmp/parts.XXXXXX";
    const FileDescriptor file(::mkstemp(path));
    ::unlink(path);
    std::string all;
    for (std::size_t i = 0; i < 1500; ++i) {
        all.push_back(static_cast<char>('a' + i % 26));
    }
    std::vector<std::span<const std::byte>> parts;
    const auto bytes = std::as_bytes(std::span(all));
    for (std::size_t at = 0, i = 0; at < all.size(); ++i) {
        const std::size_t length = std::min(i % 5, all.size() - at); // some of them empty
        parts.push_back(bytes.subspan(at, length));
        at += length;
    }
    const auto written = file.writeAt(parts, kOffset);
    EXPECT_EQ(written.error, 0);
    EXPECT_EQ(written.bytes, all.size());
    std::string found(all.size() + 1, '\0');
    EXPECT_EQ(file.readAt(found.data(), found.size(), kOffset).bytes, all.size());
    EXPECT_EQ(found.substr(0, all.size()), all);
}

} // namespace
} // namespace tavelin
