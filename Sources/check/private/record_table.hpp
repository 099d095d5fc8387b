/// What the check keeps of each file record in use.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

namespace tavelin::check {

struct RecordState {
    enum Flag : std::uint16_t {
        inUse = 0x0001,
        extension = 0x0002, ///< `parent` is the base record
        claimed = 0x0004,   ///< of an extension: its base record lists it
        directory = 0x0008,
        hasReparsePoint = 0x0010,
        reparseIndexed = 0x0020,
        hasObjectId = 0x0040,
        objectIdIndexed = 0x0080,
        reachesRoot = 0x0100,   ///< known to be below the root
        onWalk = 0x0200,        ///< on the way that is being followed to the root
        comparesSizes = 0x0400, ///< its index entries have to have its sizes
        viewIndex = 0x0800,
        damaged = 0x1000, ///< its names could not be read as a whole
    };

    /// Sum over the names in the record minus sum over the index entries that lead to it, each as a
    /// hash of directory, name and namespace: 0 when they are the same.
    std::uint64_t names = 0;
    std::uint32_t parent = 0;         ///< record number of the first name's directory
    std::uint32_t sizes = 0;          ///< hash of the sizes that index entries have to have
    std::uint32_t fileAttributes = 0; ///< of $STANDARD_INFORMATION
    std::uint16_t sequence = 0;
    std::uint16_t flags = 0;

    [[nodiscard]] bool has(Flag flag) const noexcept { return (flags & flag) != 0; }
    void set(Flag flag) noexcept { flags = static_cast<std::uint16_t>(flags | flag); }
    void clear(Flag flag) noexcept { flags = static_cast<std::uint16_t>(flags & ~flag); }
};

// Each of a volume's millions of records has one of these.
static_assert(sizeof(RecordState) <= 24);

/// States are kept in chunks, and only those with a record in use.
class RecordTable {
  public:
    /// Null for a record that is not in use.
    [[nodiscard]] RecordState* find(std::uint64_t record) noexcept;
    /// Makes it, not yet in use, unless it is there.
    RecordState& touch(std::uint64_t record);
    /// The same, and in use.
    RecordState& add(std::uint64_t record);

    /// Calls visit(record, state) for each record in use, in ascending order below `end`.
    template<typename Visit>
    void each(std::uint64_t end, Visit&& visit) {
        for (std::uint64_t index = 0; index * kChunkRecords < end; ++index) {
            const auto chunk = chunks_.find(index);
            for (std::uint64_t i = 0; chunk != chunks_.end() && i < kChunkRecords; ++i) {
                if (chunk->second[i].has(RecordState::inUse)) {
                    visit(index * kChunkRecords + i, chunk->second[i]);
                }
            }
        }
    }

  private:
    static constexpr std::uint64_t kChunkRecords = 256;

    std::unordered_map<std::uint64_t, std::unique_ptr<RecordState[]>> chunks_;
};

} // namespace tavelin::check
