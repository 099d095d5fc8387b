/// Collects the entries of directory enumerations.
#pragma once

#include "fskit/api/directory.hpp"
#include "platform/assert.hpp"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin {

/// One entry as an enumeration delivered it.
struct DirectoryEntry {
    std::string name;
    fskit::FSItemType type = fskit::FSItemType::unknown;
    fskit::FSItemID itemID = fskit::FSItemIDInvalid;
    fskit::FSDirectoryCookie nextCookie = 0;
    std::optional<fskit::FSItemAttributes> attributes;
};

/// A page of limited size: an entry costs kEntryBytes, its name's bytes, and kAttributeBytes when
/// it comes with attributes. The first entry of a page always fits, so that every page advances.
/// Used by one thread at a time.
class EntryPacker final : public fskit::FSDirectoryEntryPacker {
  public:
    /// What an entry costs of a page in bytes, and what its attributes cost on top.
    static constexpr std::size_t kEntryBytes = 24;
    static constexpr std::size_t kAttributeBytes = 184;
    static constexpr std::size_t kDefaultBytes = 65'536;

    /// Pages end at `bytes` or at `entries`, whichever comes first.
    explicit EntryPacker(std::size_t bytes = kDefaultBytes,
                         std::size_t entries = std::numeric_limits<std::size_t>::max())
        : bytes_(bytes), most_(entries) {}

    /// Copies the name and the attributes: the volume's are valid during the call only.
    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType itemType,
                   fskit::FSItemID itemID, fskit::FSDirectoryCookie nextCookie,
                   const fskit::FSItemAttributes* attributes) override {
        const std::size_t cost =
            kEntryBytes + name.data().size() + (attributes != nullptr ? kAttributeBytes : 0);
        if (!entries_.empty() && (used_ + cost > bytes_ || entries_.size() >= most_)) {
            return false;
        }
        used_ += cost;
        DirectoryEntry& entry = entries_.emplace_back(
            DirectoryEntry{name.data(), itemType, itemID, nextCookie, std::nullopt});
        if (attributes != nullptr) {
            entry.attributes = *attributes;
        }
        TAVELIN_ASSERT(entries_.size() == 1 || (used_ <= bytes_ && entries_.size() <= most_));
        return true;
    }

    /// The entries of the page so far, in the volume's order.
    [[nodiscard]] const std::vector<DirectoryEntry>& entries() const noexcept { return entries_; }
    /// Hands the page out and begins an empty one.
    [[nodiscard]] std::vector<DirectoryEntry> take() noexcept {
        used_ = 0;
        return std::exchange(entries_, {});
    }

  private:
    const std::size_t bytes_;
    /// Entries that a page takes.
    const std::size_t most_;
    /// Bytes of the page that its entries have taken.
    std::size_t used_ = 0;
    std::vector<DirectoryEntry> entries_;
};

} // namespace tavelin
