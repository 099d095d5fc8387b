#include "hosts/fuse/tree/directory_listing.hpp"

#include <algorithm>
#include <functional>

namespace tavelin::fusehost {

namespace {

// A file has at most 1024 names; so many positions stay free above the hashes for names of one file
// whose hashes agree.
constexpr uint64_t kRoomForTies = 1024;

} // namespace

uint64_t DirectoryListing::position(fskit::FSItemID id, std::string_view name) noexcept {
    constexpr uint64_t kHashes = (uint64_t{1} << kNameBits) - kRoomForTies;
    return id << kNameBits | std::hash<std::string_view>()(name) % kHashes;
}

void DirectoryListing::add(std::string_view name, fskit::FSItemID id, uint32_t type) {
    rows_.push_back({position(id, name), static_cast<uint32_t>(names_.size()),
                     static_cast<uint16_t>(name.size()), static_cast<uint16_t>(type)});
    names_ += name;
}

void DirectoryListing::seal() {
    const auto before = [](const Row& a, const Row& b) { return a.position < b.position; };
    if (!std::is_sorted(rows_.begin(), rows_.end(), before)) {
        std::sort(rows_.begin(), rows_.end(), before);
    }
    // Two names of one file with the same hash would share a position, and a page that ends between
    // them would lose one: the later moves up by one.
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
    for (size_t i = indexAfter((id << kNameBits) - 1); i < rows_.size() && idOf(rows_[i]) == id;
         ++i) {
        if (nameOf(rows_[i]) == name) {
            rows_[i].type = 0;
        }
    }
}

} // namespace tavelin::fusehost
