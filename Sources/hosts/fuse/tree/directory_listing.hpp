/// One directory's entries, in an order in which a stream can be resumed after any change.
///
/// An entry's position is computed from its item's number and its name alone, and the listing is
/// sorted by position. A stream that continues after position p therefore finds exactly the entries
/// beyond p in whatever listing exists by then. An entry that exists throughout is neither skipped
/// nor repeated, no state is kept per stream, and a rename within the directory moves almost
/// nothing.
///
/// A removed entry becomes a tombstone in place. A new entry does not join a listing that is being
/// read. Threading: none of its own; the directory's lock guards it (DirectoryState).
#pragma once

#include "fskit/api/item.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

class DirectoryListing {
  public:
    /// An entry as it is handed to a stream.
    struct Entry {
        uint64_t position; ///< the stream continues after it
        fskit::FSItemID id;
        std::string_view name; ///< valid until the listing is destroyed
        uint32_t type;         ///< the S_IF… bits of a mode
    };

    /// Positions 1 and 2 belong to "." and ".."; 0 is the start of a stream. No item has a number
    /// so small that its positions would collide with these.
    static uint64_t position(fskit::FSItemID id, std::string_view name) noexcept;

    /// Copies the name. Before seal() only.
    void add(std::string_view name, fskit::FSItemID id, uint32_t type);
    /// Sorts the entries. To be called once, after the last add() and before everything below.
    void seal();

    /// The number of entries, tombstones included.
    size_t size() const noexcept { return rows_.size(); }

    /// Makes the entry a tombstone; does nothing when there is none.
    void remove(fskit::FSItemID id, std::string_view name) noexcept;
    /// Makes tombstones of all entries whose item `unwanted` chooses.
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
    // The kernel's positions are positive 64-bit numbers (off_t) and a record number has up to 48
    // bits, which leaves 15. One is spare.
    /// The lower bits tell the names of one item in a directory apart: they come from the name.
    static constexpr int kNameBits = 14;

    /// An entry in 16 bytes, so that a large directory's listing stays small and sorts fast.
    struct Row {
        uint64_t position; // carries the item's number
        uint32_t nameStart;
        uint16_t nameLength;
        uint16_t type; // 0 marks a tombstone
    };

    /// The first row beyond a position, by binary search.
    size_t indexAfter(uint64_t position) const noexcept;
    /// The item's number is the upper part of the position.
    static fskit::FSItemID idOf(const Row& row) noexcept { return row.position >> kNameBits; }
    std::string_view nameOf(const Row& row) const noexcept {
        return std::string_view(names_).substr(row.nameStart, row.nameLength);
    }

    /// Sorted by position once sealed.
    std::vector<Row> rows_;
    /// All names behind each other, in the order of add().
    std::string names_;
};

} // namespace tavelin::fusehost
