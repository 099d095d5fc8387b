/// One directory's entries, in an order in which a stream can be resumed after any change.
///
/// An entry's position is made of nothing but its item's number and its name, and the listing is
/// sorted by position. So a stream that goes on after position p finds exactly the entries beyond p
/// in whatever listing there is by then: what exists throughout is neither skipped nor repeated,
/// nothing has to be kept for a stream, and renaming within the directory moves almost nothing.
///
/// Removed entries are struck out in place; new ones do not join a listing that is being read.
/// Not thread-safe: the directory's owner guards it.
#pragma once

#include "fskit/api/item.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

class DirectoryListing {
  public:
    struct Entry {
        uint64_t position;
        fskit::FSItemID id;
        std::string_view name;
        uint32_t type; // S_IFREG, S_IFDIR or S_IFLNK
    };

    /// Positions 1 and 2 are taken by "." and "..", 0 is the start.
    static uint64_t position(fskit::FSItemID id, std::string_view name) noexcept;

    void add(std::string_view name, fskit::FSItemID id, uint32_t type);
    /// Ends the adding; the listing can be read from now on.
    void seal();

    /// How many entries there are, or were before some were struck out.
    size_t size() const noexcept { return rows_.size(); }

    /// Strikes an entry out, if it is there.
    void remove(fskit::FSItemID id, std::string_view name) noexcept;
    template<typename Unwanted>
    void removeIf(Unwanted&& unwanted) {
        for (Row& row : rows_) {
            if (unwanted(idOf(row))) {
                row.type = 0;
            }
        }
    }

    fskit::FSItemID parent = fskit::FSItemIDInvalid; ///< the directory's parent

    /// Calls `take(entry)` for the entries beyond `position` until it answers false.
    template<typename Take>
    void readAfter(uint64_t position, Take&& take) const {
        for (size_t i = indexAfter(position); i < rows_.size(); ++i) {
            const Row& row = rows_[i];
            if (row.type != 0 && !take(Entry{row.position, idOf(row), nameOf(row), row.type})) {
                return;
            }
        }
    }

  private:
    // A record number has at most 48 bits, and the kernel's positions are positive 64-bit numbers.
    static constexpr int kNameBits = 14;

    struct Row {
        uint64_t position; // carries the item's number
        uint32_t nameStart;
        uint16_t nameLength;
        uint16_t type; // 0: struck out
    };

    size_t indexAfter(uint64_t position) const noexcept;
    static fskit::FSItemID idOf(const Row& row) noexcept { return row.position >> kNameBits; }
    std::string_view nameOf(const Row& row) const noexcept {
        return std::string_view(names_).substr(row.nameStart, row.nameLength);
    }

    std::vector<Row> rows_;
    std::string names_;
};

} // namespace tavelin::fusehost
