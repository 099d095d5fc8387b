#include "core/values.hpp"

#include <algorithm>

namespace tavelin {

namespace {

constexpr std::size_t kFirstEntries = 64;
constexpr std::size_t kFirstNameBytes = 4096;
// The system takes longer to give fresh memory than a move into it takes.
constexpr std::size_t kGrowth = 4;

} // namespace

void NTFSListing::append(std::string_view name, std::uint64_t ino, std::uint16_t sequence,
                         NTFSItemType type) {
    if (entries_.size() == entries_.capacity()) {
        entries_.reserve(std::max(kFirstEntries, entries_.size() * kGrowth));
    }
    if (names_.capacity() - names_.size() <= name.size()) {
        names_.reserve(std::max(kFirstNameBytes, names_.capacity() * kGrowth));
    }
    names_.insert(names_.end(), name.begin(), name.end());
    names_.push_back('\0');
    entries_.push_back({.name = {}, .ino = ino, .sequence = sequence, .type = type});
}

void NTFSListing::finish() noexcept {
    const char* at = names_.data();
    for (NTFSDirEntry& entry : entries_) {
        entry.name = at; // up to its NUL, which no name has inside
        at += entry.name.size() + 1;
    }
}

void NTFSListing::erase(std::string_view name) noexcept {
    std::erase_if(entries_, [&](const NTFSDirEntry& entry) { return entry.name == name; });
}

std::optional<NTFSItemType> itemType(std::uint32_t rawValue) noexcept {
    if (rawValue < 1 || rawValue > 7) {
        return std::nullopt;
    }
    return static_cast<NTFSItemType>(rawValue);
}

} // namespace tavelin
