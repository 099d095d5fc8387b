// Reading directories in pages.
//
// A cookie counts positions in a virtual list: "." and ".." (only when no attributes are wanted),
// then the entries of the listing that the verifier names. That listing is as the directory was
// when its reader began, and is kept until the reader has reached the end. So a name that stays is
// neither skipped nor repeated, whatever comes and goes between two pages, and readers do not
// disturb each other.
#include "core/driver2/directory_snapshot.hpp"
#include "core/driver2/item_identity.hpp"
#include "fskit/private/item_type.hpp"
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <limits>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kDotEntries = 2;

// Told with the last entry of a listing. A reader that comes with it has everything, so nothing
// needs to be kept for it to be told so. The kernel passes positions to programs as signed numbers.
constexpr fskit::FSDirectoryCookie kEndCookie = std::numeric_limits<std::int64_t>::max();

} // namespace

/// One request's way through a listing.
class TavelinVolume::Pager {
  public:
    Pager(const Driver2::DirectorySnapshot& listing, const NItem& directory,
          fskit::FSDirectoryCookie cookie, bool described, fskit::FSDirectoryEntryPacker& packer)
        : listing_(listing),
          directory_(directory),
          packer_(packer),
          start_(cookie),
          told_(cookie),
          dots_(described ? 0 : kDotEntries),
          described_(described) {}

    /// Packs what of "." and ".." comes at or after the cookie; false when the packer is full.
    bool packDots() {
        constexpr auto kType = fskit::FSItemType::directory;
        return (dots_ == 0 || start_ > 0 ||
                pack(fskit::FSFileName("."), kType, Driver2::itemID(directory_.ino), 1, nullptr)) &&
               (dots_ == 0 || start_ > 1 ||
                pack(fskit::FSFileName(".."), kType, Driver2::itemID(directory_.parent),
                     listing_.entries.empty() ? kEndCookie : kDotEntries, nullptr));
    }

    /// The first entry at or after the cookie, as a position in the listing.
    std::uint64_t first() const noexcept { return start_ > dots_ ? start_ - dots_ : 0; }

    /// Packs the entry at a position of the listing; false when it did not fit. With attributes
    /// the item is the one that they describe; the reader gets them only if it wants any.
    bool pack(std::uint64_t position, const fskit::FSItemAttributes* attributes) {
        const NTFSDirEntry& entry = listing_.entries[static_cast<std::size_t>(position)];
        const bool isLast = position + 1 == listing_.entries.size();
        name_ = entry.name;
        return pack(name_, attributes != nullptr ? attributes->type() : fskitType(entry.type),
                    attributes != nullptr ? attributes->fileID() : Driver2::itemID(entry.ino),
                    isLast ? kEndCookie
                           : Driver2::DirectorySnapshot::cookie(
                                 static_cast<std::int64_t>(position + dots_)),
                    described_ ? attributes : nullptr);
    }

    /// Whether the reader was told that nothing follows.
    bool hasToldTheEnd() const noexcept { return told_ == kEndCookie; }
    /// Whether the reader will come back for more. Otherwise it has everything, or got an empty
    /// page, as what was left has been removed.
    bool isUnfinished() const noexcept { return !hasToldTheEnd() && (told_ != start_ || full_); }

  private:
    bool pack(const fskit::FSFileName& name, fskit::FSItemType type, fskit::FSItemID id,
              fskit::FSDirectoryCookie next, const fskit::FSItemAttributes* attributes) {
        TAVELIN_ASSERT(next > told_);
        full_ = !packer_.packEntry(name, type, id, next, attributes);
        told_ = full_ ? told_ : next;
        return !full_;
    }

    const Driver2::DirectorySnapshot& listing_;
    const NItem& directory_;
    fskit::FSDirectoryEntryPacker& packer_;
    const fskit::FSDirectoryCookie start_;
    fskit::FSDirectoryCookie told_; // with the last entry that was packed
    const std::uint64_t dots_;
    const bool described_;
    bool full_ = false;
    fskit::FSFileName name_; // of the entry at hand, in the memory of the one before
};

std::optional<NTFSAttributes>
TavelinVolume::currentAttributes(const NTFSDirEntry& entry, const NItem& directory, bool isOrphan) {
    try {
        if (!isOrphan) {
            return ntfs->attributes(entry.reference());
        }
    } catch (const NTFSError& error) {
        if (error.code != kESTALE) {
            throw;
        }
    }
    // The item is gone, or lives on without this name, but another may have taken it, by a rename
    // over it: the name has been there all the time.
    return ntfs->find(entry.name, directory.reference);
}

void TavelinVolume::packEntries(const Driver2::DirectorySnapshot& listing, const NItem& directory,
                                bool described, const OrphanView* orphans, Pager& pager) {
    fskit::FSItemAttributes memory; // of the entry at hand, filled anew for each
    for (std::uint64_t at = pager.first(); at < listing.entries.size(); ++at) {
        const NTFSDirEntry& entry = listing.entries[static_cast<std::size_t>(at)];
        const bool isOrphan = orphans != nullptr && orphans->contains(Driver2::itemID(entry.ino));
        const fskit::FSItemAttributes* attributes = nullptr;
        if (described || isOrphan) {
            try {
                const auto current = currentAttributes(entry, directory, isOrphan);
                if (!current) {
                    continue; // the name has been removed since the listing was taken
                }
                // Of a listing that no move came after, all items are in the directory still.
                describe(*current,
                         listing.verifier > movedSince_
                             ? directory.ino
                             : parentOf(current->reference(), directory.ino),
                         memory);
                attributes = &memory;
            } catch (const NTFSError&) {
                // One unreadable item must not hide the rest: it is listed without attributes.
            }
        }
        if (!pager.pack(at, attributes)) {
            return;
        }
    }
}

TavelinVolume::Snapshot TavelinVolume::listing(const NItem& directory,
                                               fskit::FSDirectoryCookie cookie,
                                               fskit::FSDirectoryVerifier verifier,
                                               OrphanView* orphans) {
    std::uint64_t fresh = 0;
    {
        const MutexLock held(items);
        // A reader at its start gets a listing of its own, which has every change made before. One
        // that comes half-way with a listing that is gone goes on at the same position of a new
        // one. That may skip or repeat names, but it ends.
        if (cookie != fskit::FSDirectoryCookieInitial) {
            if (Snapshot kept = listings_.find(directory.reference, verifier)) {
                return kept;
            }
        }
        fresh = listings_.nextVerifier();
    }
    NTFSListing listed = ntfs->list(directory.reference);
    if (orphans != nullptr && directory.ino == NTFSVolume::kRootIno) {
        listed.erase(orphans->hiddenName());
    }
    return std::make_shared<Driver2::DirectorySnapshot>(std::move(listed), fresh);
}

Outcome<fskit::FSDirectoryVerifier> TavelinVolume::enumerateDirectory(
    const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
    fskit::FSDirectoryVerifier verifier, const fskit::FSItemGetAttributesRequest* wanted,
    fskit::FSDirectoryEntryPacker& packer) {
    return enumerate(directory, startingAt, verifier, wanted, packer, nullptr);
}

Outcome<fskit::FSDirectoryVerifier>
TavelinVolume::enumerate(const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
                         fskit::FSDirectoryVerifier verifier,
                         const fskit::FSItemGetAttributesRequest* wanted,
                         fskit::FSDirectoryEntryPacker& packer, OrphanView* orphans) {
    return request<"enumerateDirectory">([&] {
        const NItem& parent = n(directory);
        KeptListings::Listings dropped; // freed after the lock is released
        if (startingAt == kEndCookie) {
            const MutexLock held(items);
            dropped = listings_.takeOut(parent.reference, verifier);
            return verifier;
        }
        const Snapshot snapshot = listing(parent, startingAt, verifier, orphans);
        Pager pager(*snapshot, parent, startingAt, wanted != nullptr, packer);
        if (pager.packDots()) {
            packEntries(*snapshot, parent, wanted != nullptr, orphans, pager);
        }
        const MutexLock held(items);
        if (pager.isUnfinished()) {
            dropped = listings_.keep(parent.reference, snapshot);
        } else if (!pager.hasToldTheEnd()) {
            dropped = listings_.takeOut(parent.reference, snapshot->verifier);
        }
        return snapshot->verifier;
    });
}

Outcome<void> TavelinVolume::listSorted(const fskit::FSItemRef& directory,
                                        NTFSListPosition& position,
                                        fskit::FSDirectoryEntryPacker& packer) {
    constexpr std::size_t kPageEntries = 256;
    return request<"enumerateDirectory">([&] {
        const NItem& parent = n(directory);
        fskit::FSItemAttributes memory; // of the entry at hand, filled anew for each
        fskit::FSDirectoryCookie packed = 0;
        // A page whose names have all been removed meanwhile is not the end.
        while (packed == 0) {
            const NTFSListing page = ntfs->listSorted(parent.reference, position, kPageEntries);
            if (page.empty()) {
                return;
            }
            for (const NTFSDirEntry& entry : page) {
                const fskit::FSItemAttributes* attributes = nullptr;
                try {
                    const auto current = currentAttributes(entry, parent, false);
                    if (!current) {
                        continue;
                    }
                    describe(*current, parent.ino, memory);
                    attributes = &memory;
                } catch (const NTFSError&) {
                    // As in packEntries(): listed without attributes.
                }
                const bool fits = packer.packEntry(
                    fskit::FSFileName(entry.name),
                    attributes != nullptr ? attributes->type() : fskitType(entry.type),
                    attributes != nullptr ? attributes->fileID() : Driver2::itemID(entry.ino),
                    ++packed, attributes);
                TAVELIN_ASSERT(fits);
            }
        }
    });
}

Outcome<std::string> TavelinVolume::shortName(const fskit::FSFileName& name,
                                              const fskit::FSItemRef& directory) {
    return request<"getAttributes">(
        [&] { return ntfs->shortName(TavelinVolume::name(name), n(directory).reference); });
}

} // namespace tavelin
