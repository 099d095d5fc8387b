// Listings of folders, and how changes reach them.
#include "core/driver2.hpp"
#include "fskit/api/error.hpp"
#include "hosts/fuse/mounted_volume.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <sys/stat.h>

namespace tavelin::fusehost {

namespace {

constexpr uint64_t kAfterDot = 1, kAfterDotDot = 2;

// The kernel asks for attributes with the first page of every listing, wanted or not, and with
// later ones only when somebody looks at the entries. In a folder of more entries than this the
// first page holds so few of them that those who want only names should not have to pay for it.
constexpr size_t kWorthDescribing = 1000;

uint32_t fileType(fskit::FSItemType type) {
    switch (type) {
    case fskit::FSItemType::directory:
        return S_IFDIR;
    case fskit::FSItemType::symlink:
        return S_IFLNK;
    default:
        return S_IFREG;
    }
}

// Collects a whole enumeration; it never runs out of room.
class ListingPacker final : public fskit::FSDirectoryEntryPacker {
  public:
    explicit ListingPacker(FolderListing& listing, std::string_view skipped)
        : listing_(listing), skipped_(skipped) {}

    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType itemType,
                   fskit::FSItemID itemID, fskit::FSDirectoryCookie /*nextCookie*/,
                   const fskit::FSItemAttributes* /*attributes*/) override {
        const std::string& text = name.data();
        if (text == "..") {
            listing_.parent = Driver2::ino(itemID);
        } else if (text != "." && text != skipped_) {
            listing_.add(text, Driver2::ino(itemID), fileType(itemType));
        }
        return true;
    }

  private:
    FolderListing& listing_;
    std::string_view skipped_;
};

} // namespace

void MountedVolume::openFolder(Node& folder) {
    const MutexLock held(folder.folder->lock);
    ++folder.folder->streams;
}

void MountedVolume::closeFolder(Node& folder) {
    const MutexLock held(folder.folder->lock);
    if (--folder.folder->streams == 0) {
        folder.folder->listing.reset();
    }
}

void MountedVolume::noteNewName(Node& folder) {
    const MutexLock held(folder.folder->lock);
    folder.folder->listingIsOld = true;
}

void MountedVolume::noteLostName(Node& folder, uint64_t ino, std::string_view name) {
    const MutexLock held(folder.folder->lock);
    if (folder.folder->listing) {
        folder.folder->listing->remove(ino, name);
    }
}

Outcome<std::unique_ptr<FolderListing>> MountedVolume::list(const Node& folder) {
    auto listing = std::make_unique<FolderListing>();
    ListingPacker packer(*listing, &folder == &nodes_.root() ? RemovedFiles::kParkingFolder
                                                             : std::string_view());
    const Outcome<fskit::FSDirectoryVerifier> listed =
        volume_.enumerate(folder.item, fskit::FSDirectoryCookieInitial,
                          fskit::FSDirectoryVerifierInitial, false, packer);
    if (!listed) {
        return listed.error();
    }
    listing->seal();
    if (!removed_.isEmpty()) {
        listing->removeIf([&](uint64_t ino) { return removed_.contains(ino); });
    }
    return listing;
}

Entry MountedVolume::describe(const Node& folder, const FolderListing::Entry& name) {
    Outcome<Found> found = volume_.describe(folder.item, Driver2::itemID(name.ino));
    // Without its attributes an entry is told by name only, which is true in any case.
    return found ? remember(std::move(*found)) : Entry();
}

Outcome<void> MountedVolume::readFolder(Node& folder, uint64_t position, bool described,
                                        const TakeEntry& take) {
    if (!folder.isFolder()) {
        return fskit::fs_errorForPOSIXError(kENOTDIR);
    }
    if (folder.gone) {
        return {}; // an empty folder without even "." and ".."
    }
    const MutexLock held(folder.folder->lock);
    std::unique_ptr<FolderListing>& listing = folder.folder->listing;
    if (!listing || (position == 0 && folder.folder->listingIsOld)) {
        Outcome<std::unique_ptr<FolderListing>> fresh = list(folder);
        if (!fresh) {
            return fresh.error();
        }
        folder.folder->listingIsOld = false;
        listing = std::move(*fresh);
    }
    if (position < kAfterDot && !take({kAfterDot, folder.ino, ".", S_IFDIR}, {})) {
        return {};
    }
    if (position < kAfterDotDot && !take({kAfterDotDot, listing->parent, "..", S_IFDIR}, {})) {
        return {};
    }
    const bool describes = described && (position != 0 || listing->size() <= kWorthDescribing);
    bool more = position < kAfterDotDot;
    listing->readAfter(std::max(position, kAfterDotDot), [&](const FolderListing::Entry& name) {
        const Entry entry = describes ? describe(folder, name) : Entry();
        const bool taken = take(name, entry);
        if (!taken && entry.node != nullptr) {
            forget(entry.node->number(), 1);
        }
        more = true;
        return taken;
    });
    if (!more) {
        listing.reset(); // the stream has reached its end
    }
    return {};
}

} // namespace tavelin::fusehost
