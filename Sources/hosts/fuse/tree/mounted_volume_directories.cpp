// Listings of directories, and how changes reach them.
#include "core/driver2/item_identity.hpp"
#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <sys/stat.h>

namespace tavelin::fusehost {

namespace {

// Positions of "." and "..", which no listing holds; see DirectoryListing::position().
constexpr uint64_t kAfterDot = 1, kAfterDotDot = 2;

// The kernel asks for attributes with the first page of every listing, and with later pages only
// after a program has looked entries up (READDIRPLUS_AUTO). Above this number of entries the first
// page is a small part of the listing, so its attributes would be read in vain for every program
// that wants names only.
constexpr size_t kDescribedEntriesMax = 1000;

// The volume's types and the front end's count alike.
uint32_t fileType(fskit::FSItemType type) {
    return Driver2::mode(static_cast<NTFSItemType>(type)) & S_IFMT;
}

// Collects a whole enumeration; it never runs out of room.
class ListingPacker final : public fskit::FSDirectoryEntryPacker {
  public:
    ListingPacker(DirectoryListing& listing, std::string hidden)
        : listing_(listing), hidden_(std::move(hidden)) {}

    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType itemType,
                   fskit::FSItemID itemID, fskit::FSDirectoryCookie /*nextCookie*/,
                   const fskit::FSItemAttributes* /*attributes*/) override {
        const std::string_view text = name.data();
        if (text == "..") {
            listing_.parent = itemID;
        } else if (text.find('/') != std::string::npos) {
            // Only a damaged volume has such a name. The kernel refuses a whole directory for it.
            ++unusable_;
        } else if (text != "." && text != hidden_) {
            listing_.add(text, itemID, fileType(itemType));
        }
        return true;
    }

    /// How many entries were left out because no program could use their names.
    size_t unusable() const noexcept { return unusable_; }

  private:
    DirectoryListing& listing_;
    const std::string hidden_;
    size_t unusable_ = 0;
};

} // namespace

void MountedVolume::openDirectory(Node& directory) {
    const MutexLock held(directory.directory->lock);
    ++directory.directory->streams;
}

void MountedVolume::closeDirectory(Node& directory) {
    const MutexLock held(directory.directory->lock);
    TAVELIN_ASSERT(directory.directory->streams > 0);
    if (--directory.directory->streams == 0) {
        // The memory of a listing is bounded by what is open, not by what was ever listed.
        directory.directory->listing.reset();
    }
}

void MountedVolume::noteNewName(Node& directory) {
    const MutexLock held(directory.directory->lock);
    directory.directory->listingIsOld = true;
}

void MountedVolume::noteLostName(Node& directory, fskit::FSItemID id, std::string_view name) {
    const MutexLock held(directory.directory->lock);
    // A tombstone at once: a stream that goes on reading must not show what the same program has
    // removed. A new name may wait for the next listing, as POSIX allows.
    if (directory.directory->listing) {
        directory.directory->listing->remove(id, name);
    }
}

Outcome<std::unique_ptr<DirectoryListing>> MountedVolume::list(const Node& directory) {
    auto listing = std::make_unique<DirectoryListing>();
    ListingPacker packer(*listing,
                         &directory == &nodes_.root() ? orphans_.hiddenName() : std::string());
    const Outcome<fskit::FSDirectoryVerifier> listed =
        volume_.enumerate(directory.item, fskit::FSDirectoryCookieInitial,
                          fskit::FSDirectoryVerifierInitial, false, packer);
    if (!listed) {
        return listed.error();
    }
    if (packer.unusable() != 0 && !unusableNamesTold_.exchange(true)) {
        log().error(fmt::format("directory {}: {} entries with a slash in their names are not "
                                "shown; check the volume",
                                directory.id, packer.unusable()));
    }
    listing->seal();
    // A file with a pending unlink still has its name on the volume and none for users.
    if (!orphans_.isEmpty()) {
        listing->removeIf([&](fskit::FSItemID id) { return orphans_.contains(id); });
    }
    return listing;
}

Entry MountedVolume::describe(const Node& directory, const DirectoryListing::Entry& name) {
    Outcome<Found> found = volume_.describe(directory.item, name.id);
    // The error is dropped: an entry without attributes is reported by name and type only, and the
    // kernel looks it up when somebody uses it, which answers the error.
    return found ? acquire(std::move(*found)) : Entry();
}

Outcome<void> MountedVolume::readDirectory(Node& directory, uint64_t position, bool described,
                                           const TakeEntry& take) {
    if (!directory.isDirectory()) {
        return fskit::fs_errorForPOSIXError(kENOTDIR);
    }
    const MutexLock held(directory.directory->lock);
    std::unique_ptr<DirectoryListing>& listing = directory.directory->listing;
    // A stream at its start (opened, or rewound) must see every change made before. A stream
    // further on keeps the listing that it reads, so that a growing directory does not make it
    // endless.
    if (!listing || (position == 0 && directory.directory->listingIsOld)) {
        Outcome<std::unique_ptr<DirectoryListing>> fresh = list(directory);
        if (!fresh) {
            // A directory that was removed is empty, without even "." and "..".
            return isCode(fresh.error(), kESTALE) ? Outcome<void>() : fresh.error();
        }
        directory.directory->listingIsOld = false;
        listing = std::move(*fresh);
    }
    if (position < kAfterDot && !take({kAfterDot, directory.id, ".", S_IFDIR}, {})) {
        return {};
    }
    if (position < kAfterDotDot && !take({kAfterDotDot, listing->parent, "..", S_IFDIR}, {})) {
        return {};
    }
    const bool describes = described && (position != 0 || listing->size() <= kDescribedEntriesMax);
    bool more = position < kAfterDotDot;
    listing->readAfter(std::max(position, kAfterDotDot), [&](const DirectoryListing::Entry& name) {
        const Entry entry = describes ? describe(directory, name) : Entry();
        const bool taken = take(name, entry);
        // An entry that did not fit is not told to the kernel, so its count goes back.
        if (!taken && entry.node != nullptr) {
            forget(entry.node->number, 1);
        }
        more = true;
        return taken;
    });
    if (!more) {
        listing.reset(); // a stream has reached its end; others make a new listing
    }
    return {};
}

} // namespace tavelin::fusehost
