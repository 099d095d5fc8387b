// Reading directories in pages.
//
// A cookie counts positions in a virtual list: "." and ".." (only when no attributes are wanted),
// then the entries of the directory's snapshot. The verifier is the volume's generation when the
// snapshot was taken, so a namespace change makes the next page start from a fresh listing.
#include "core/driver2/directory_snapshot.hpp"
#include "core/driver2/item_identity.hpp"
#include "fskit/private/item_type.hpp"
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"

#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kDotEntries = 2;

/// Packs what of "." and ".." comes at or after the cookie; false when the packer is full.
bool packDotEntries(const NItem& directory, fskit::FSDirectoryCookie cookie,
                    fskit::FSDirectoryEntryPacker& packer) {
    constexpr auto kType = fskit::FSItemType::directory;
    if (cookie == 0 && !packer.packEntry(fskit::FSFileName("."), kType,
                                         Driver2::itemID(directory.ino), 1, nullptr)) {
        return false;
    }
    return cookie > 1 || packer.packEntry(fskit::FSFileName(".."), kType,
                                          Driver2::itemID(directory.parent), kDotEntries, nullptr);
}

} // namespace

TavelinVolume::Snapshot TavelinVolume::listing(NItem& directory, fskit::FSDirectoryCookie cookie,
                                               fskit::FSDirectoryVerifier verifier) {
    std::uint64_t generation = 0;
    {
        const MutexLock held(items);
        if (cookie != 0 && directory.snapshot && directory.snapshot->verifier == verifier) {
            return directory.snapshot;
        }
        generation = generation_;
    }
    // A change made while the list is taken may or may not be in it, and does not drop it: like any
    // change during an enumeration, it is certain to show in the next one from the start.
    Snapshot fresh =
        std::make_shared<Driver2::DirectorySnapshot>(ntfs->list(directory.reference), generation);
    Snapshot replaced = fresh; // freed after the lock is released
    const MutexLock held(items);
    directory.snapshot.swap(replaced);
    return fresh;
}

void TavelinVolume::packEntries(const Driver2::DirectorySnapshot& listing, std::uint64_t first,
                                const NItem& directory, bool withAttributes,
                                fskit::FSDirectoryEntryPacker& packer) {
    const std::uint64_t offset = withAttributes ? 0 : kDotEntries;
    std::uint64_t position = first;
    fskit::FSFileName name;
    fskit::FSItemAttributes memory; // of the entry at hand, filled anew for each
    for (const NTFSDirEntry& entry : listing.page(first)) {
        const fskit::FSItemAttributes* found = nullptr;
        if (withAttributes) {
            try {
                describe(ntfs->attributes(entry.reference()), directory.ino, memory);
                found = &memory;
            } catch (const NTFSError&) {
                // One unreadable item must not hide the rest: it is listed without attributes.
            }
        }
        const std::uint64_t next =
            Driver2::DirectorySnapshot::cookie(static_cast<std::int64_t>(position)) + offset;
        name = entry.name;
        position++;
        if (!packer.packEntry(name, fskitType(entry.type), Driver2::itemID(entry.ino), next,
                              found)) {
            break;
        }
    }
}

Outcome<fskit::FSDirectoryVerifier> TavelinVolume::enumerateDirectory(
    const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
    fskit::FSDirectoryVerifier verifier, const fskit::FSItemGetAttributesRequest* wanted,
    fskit::FSDirectoryEntryPacker& packer) {
    return request<"enumerateDirectory">([&] {
        NItem& parent = n(directory);
        const Snapshot snapshot = listing(parent, startingAt, verifier);
        if (wanted != nullptr) {
            packEntries(*snapshot, startingAt, parent, true, packer);
        } else if (packDotEntries(parent, startingAt, packer)) {
            const std::uint64_t first = startingAt > kDotEntries ? startingAt - kDotEntries : 0;
            packEntries(*snapshot, first, parent, false, packer);
        }
        return snapshot->verifier;
    });
}

} // namespace tavelin
