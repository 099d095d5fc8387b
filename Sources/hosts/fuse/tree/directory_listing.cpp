#include "hosts/fuse/tree/directory_listing.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <functional>

namespace tavelin::fusehost {

namespace {

// Positions kept free above the hashes, for names of one file whose hashes collide. A file has at
// most 1024 names, so collisions never run into the next item's positions.
constexpr uint64_t kRoomForTies = 1024;

} // namespace

uint64_t DirectoryListing::position(fskit::FSItemID id, std::string_view name) noexcept {
    constexpr uint64_t kHashes = (uint64_t{1} << kNameBits) - kRoomForTies;
    return id << kNameBits | std::hash<std::string_view>()(name) % kHashes;
}

void DirectoryListing::add(std::string_view name, fskit::FSItemID id, uint32_t type) {
    // An NTFS name has at most 255 UTF-16 units, which is at most 765 bytes.
    TAVELIN_ASSERT(name.size() <= UINT16_MAX && names_.size() <= UINT32_MAX);
    TAVELIN_ASSERT(type != 0);
    rows_.push_back({position(id, name), static_cast<uint32_t>(names_.size()),
                     static_cast<uint16_t>(name.size()), static_cast<uint16_t>(type)});
    names_ += name;
}

void DirectoryListing::seal() {
    const auto before = [](const Row& a, const Row& b) { return a.position < b.position; };
    // The volume lists by name, and small directories filled in order come out sorted by record
    // too.
    if (!std::is_sorted(rows_.begin(), rows_.end(), before)) {
        std::sort(rows_.begin(), rows_.end(), before);
    }
    // Two names of one file with the same hash have the same position. A page that ends between
    // them would lose the second, so it moves up by one.
    for (size_t i = 1; i < rows_.size(); ++i) {
        rows_[i].position = std::max(rows_[i].position, rows_[i - 1].position + 1);
    }
}

size_t DirectoryListing::indexAfter(uint64_t position) const noexcept {
    const auto at = std::upper_bound(rows_.begin(), rows_.end(), position,
                                     [](uint64_t p, const Row& row) { return p < row.position; });
    return static_cast<size_t>(at - rows_.begin());
}

void DirectoryListing::remove(fskit::FSItemID id, std::string_view name) noexcept {
    // Searched by number and not by position: seal() may have moved the entry up.
    for (size_t i = indexAfter((id << kNameBits) - 1); i < rows_.size() && idOf(rows_[i]) == id;
         ++i) {
        if (nameOf(rows_[i]) == name) {
            rows_[i].type = 0;
        }
    }
}

} // namespace tavelin::fusehost
