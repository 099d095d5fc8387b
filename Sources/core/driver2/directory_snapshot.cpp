#include "core/driver2/directory_snapshot.hpp"

#include "platform/checked.hpp"

#include <algorithm>
#include <cstddef>

namespace tavelin::Driver2 {

std::span<const NTFSDirEntry> DirectorySnapshot::page(std::uint64_t position) const noexcept {
    const std::span<const NTFSDirEntry> all(entries.begin(), entries.end());
    return all.subspan(static_cast<std::size_t>(std::min<std::uint64_t>(position, all.size())));
}

std::uint64_t DirectorySnapshot::cookie(std::int64_t position) noexcept {
    if (position < 0) {
        fatal("a directory position was negative");
    }
    return static_cast<std::uint64_t>(
        checkedAdd<std::int64_t>(position, 1, "a directory position overflowed"));
}

} // namespace tavelin::Driver2
