// The indexes in $Extend, which lead to files by something else than their names.
#include "check/private/index_walk.hpp"
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::size_t kReparseKey = 12;  // bytes: u32 tag, u64 file reference
constexpr std::size_t kObjectIdKey = 16; // bytes

/// One of the two indexes that have an entry for each file with a certain attribute.
struct Kind {
    std::string_view file;
    std::string_view index;
    std::uint32_t attribute;
    RecordState::Flag has;
    RecordState::Flag indexed;
    FindingClass stale;
    FindingClass missing;
};

constexpr Kind kReparse{"$Reparse",
                        "$R",
                        ntb::at_reparse_point,
                        RecordState::hasReparsePoint,
                        RecordState::reparseIndexed,
                        reparseIndex,
                        reparseNotIndexed};
constexpr Kind kObjectId{"$ObjId",
                         "$O",
                         ntb::at_object_id,
                         RecordState::hasObjectId,
                         RecordState::objectIdIndexed,
                         objectIdIndex,
                         objectIdNotIndexed};

class ViewIndexPass {
  public:
    ViewIndexPass(Volume& volume, const Kind& kind) : volume_(volume), kind_(kind) {}

    void run() {
        const auto found = volume_.extendFiles.find(std::string(kind_.file));
        File file;
        if (found == volume_.extendFiles.end() || !volume_.loadFile(found->second, file)) {
            return; // volumes without the index are sound
        }
        // Both ways: an entry without its file is stale, a file without an entry is not found.
        IndexWalk(volume_, file, kind_.index).run(Collation::numbers, [&](const IndexEntry& entry) {
            visit(file, entry);
        });
        volume_.table.each(volume_.recordCount(), [&](std::uint64_t number, RecordState& state) {
            if (state.has(kind_.has) && !state.has(kind_.indexed)) {
                volume_.add(kind_.missing, number, fmt::format("an entry in {}", kind_.file),
                            "none");
            }
        });
    }

  private:
    void visit(const File& index, const IndexEntry& entry) {
        // $Reparse has the file in its key, behind the tag: many files share a tag. $ObjId has the
        // id alone as its key, as ids are unique, and the file in the data.
        static_assert(kReparseKey == sizeof(std::uint32_t) + sizeof(std::uint64_t));
        const bool isReparse = kind_.attribute == ntb::at_reparse_point;
        const auto key = entry.key();
        const auto data = entry.data();
        const bool isSound =
            isReparse ? key.size() >= kReparseKey : key.size() >= kObjectIdKey && data.size() >= 8;
        const std::uint64_t reference = !isSound    ? 0
                                        : isReparse ? ntb::u64_at(key.data(), 4)
                                                    : ntb::u64_at(data.data(), 0);
        const std::uint64_t number = ntb::reference_record(reference);
        // The sequence number tells a file from the one that had its record before.
        RecordState* const state = volume_.table.find(number);
        const bool leadsThere = isSound && state != nullptr && state->has(kind_.has) &&
                                state->sequence == ntb::reference_sequence(reference) &&
                                isValue(number, key.first(isReparse ? 4 : kObjectIdKey));
        if (leadsThere) {
            state->set(kind_.indexed);
        } else {
            volume_.add(kind_.stale, index.number, "a file with the attribute",
                        fmt::format("record {} with sequence number {}", number,
                                    ntb::reference_sequence(reference)));
        }
    }

    /// Whether the file's attribute begins with these bytes.
    bool isValue(std::uint64_t number, std::span<const std::uint8_t> bytes) {
        TAVELIN_ASSERT(!bytes.empty());
        File file;
        const Attribute* const attribute =
            volume_.loadFile(number, file) ? file.find(kind_.attribute) : nullptr;
        const auto value =
            attribute == nullptr ? std::nullopt : volume_.readAll(*attribute, bytes.size());
        return value && std::ranges::equal(*value, bytes);
    }

    Volume& volume_;
    const Kind& kind_;
};

} // namespace

void checkViewIndexes(Volume& volume) {
    volume.beginPhase("indexes of $Extend");
    for (const Kind& kind : {kReparse, kObjectId}) {
        ViewIndexPass(volume, kind).run();
    }
    // Of quotas only the index itself is examined: Windows computes them anew when they are wrong.
    const auto quota = volume.extendFiles.find("$Quota");
    File file;
    if (quota != volume.extendFiles.end() && volume.loadFile(quota->second, file)) {
        IndexWalk(volume, file, "$Q").run(Collation::number, [](const IndexEntry&) {});
    }
}

} // namespace tavelin::check
