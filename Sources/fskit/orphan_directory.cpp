#include "fskit/orphan_directory.hpp"

#include "core/driver2/item_identity.hpp"
#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "fskit/n_item.hpp"
#include "fskit/private/request.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace tavelin {

namespace {

using fskit::FSFileName;

bool isCode(const fskit::Error& error, int32_t code) {
    return error.isPOSIX() && error.code() == code;
}

// Collects the names of orphans. An orphan is named after its own record number. A file that a user
// or another system put there has another name, except by a coincidence that no user produces.
class OrphanPacker final : public fskit::FSDirectoryEntryPacker {
  public:
    bool packEntry(const FSFileName& name, fskit::FSItemType /*itemType*/, fskit::FSItemID itemID,
                   fskit::FSDirectoryCookie /*nextCookie*/,
                   const fskit::FSItemAttributes* /*attributes*/) override {
        if (name.data() == OrphanDirectory::nameOf(itemID)) {
            names.push_back(name.data());
        }
        return true;
    }

    std::vector<std::string> names;
};

fskit::FSItemID itemID(const ItemRef& item) {
    return Driver2::itemID(static_cast<const NItem&>(*item.item()).ino);
}

// The names that the directory may have, in the order in which they are tried.
std::string candidate(int number) {
    return number == 0 ? std::string(OrphanDirectory::kName)
                       : fmt::format("{}-{}", OrphanDirectory::kName, number);
}

} // namespace

std::string OrphanDirectory::nameOf(fskit::FSItemID id) {
    return fmt::format("{:012x}", id);
}

Outcome<ItemRef> OrphanDirectory::make(std::string_view name) {
    fskit::FSItemSetAttributesRequest hidden;
    hidden.setFlags(fskit::kHiddenFlag);
    auto made =
        volume_.createItem(FSFileName(name), fskit::FSItemType::directory, volume_.root(), hidden);
    if (!made) {
        return made.error();
    }
    ItemRef directory(volume_, std::move(made->newItem));
    // The mark comes before any orphan is moved in. Without it the next mount would take the
    // directory for a user's, and files that were removed would stay on the volume.
    if (const Outcome<void> marked =
            volume_.setXattr(FSFileName(kMarker), std::nullopt, directory.item(),
                             fskit::FSSetXattrPolicy::alwaysSet);
        !marked) {
        // It is empty. Should removing it fail too, it stays visible, as anybody's.
        (void)volume_.removeItem(directory.item(), FSFileName(name), volume_.root());
        return marked.error();
    }
    return directory;
}

Outcome<ItemRef> OrphanDirectory::open() {
    // Held until the directory is made, so that two threads do not make one each.
    const MutexLock held(lock_);
    for (int i = 0; i < kNamesMax && !directory_; ++i) {
        std::string name = candidate(i);
        Outcome<ItemRef> made = make(name);
        if (made) {
            directory_ = std::move(*made);
            name_ = std::move(name);
        } else if (!isCode(made.error(), kEEXIST)) {
            return made.error();
        }
        // A name that exists is a user's, or that of a former mount whose directory could not be
        // emptied. Neither may be mixed with the orphans of this mount.
    }
    if (!directory_) {
        return fskit::fs_errorForPOSIXError(kEEXIST);
    }
    return directory_.duplicate();
}

std::string OrphanDirectory::hiddenName() {
    const MutexLock held(lock_);
    return name_;
}

bool OrphanDirectory::is(fskit::FSItemID id) {
    const MutexLock held(lock_);
    return directory_ && id == itemID(directory_);
}

Outcome<void> OrphanDirectory::remove() {
    const MutexLock held(lock_);
    if (!directory_) {
        return {};
    }
    // Forgotten before it is removed, so that an open() after this makes a new one. The unmount has
    // begun and nothing is served any more.
    directory_ = ItemRef();
    return removeFrom(volume_.root(), std::exchange(name_, {}));
}

Outcome<std::optional<ItemRef>> OrphanDirectory::find(const fskit::FSItemRef& parent,
                                                      std::string_view name) {
    auto found = volume_.lookupItem(FSFileName(name), parent);
    if (found) {
        return std::optional(ItemRef(volume_, std::move(found->foundItem)));
    }
    return isCode(found.error(), kENOENT) ? Outcome(std::optional<ItemRef>()) : found.error();
}

// A directory that is not empty stays: what is left in it is somebody else's.
Outcome<void> OrphanDirectory::removeFrom(const fskit::FSItemRef& parent, std::string_view name) {
    // Looked up again: the entry may be gone, or have another owner, since the directory was
    // listed.
    const Outcome<std::optional<ItemRef>> found = find(parent, name);
    if (!found || !*found) {
        return found ? Outcome<void>(fskit::fs_errorForPOSIXError(kENOENT)) : found.error();
    }
    Outcome<void> removed =
        Outcome<void>::of(volume_.removeItem((*found)->item(), FSFileName(name), parent));
    return !removed && isCode(removed.error(), kENOTEMPTY) ? Outcome<void>() : std::move(removed);
}

Outcome<void> OrphanDirectory::empty(const fskit::FSItemRef& directory, std::string_view name) {
    OrphanPacker left;
    if (const auto listed =
            volume_.enumerateDirectory(directory, fskit::FSDirectoryCookieInitial,
                                       fskit::FSDirectoryVerifierInitial, nullptr, left);
        !listed) {
        return listed.error();
    }
    // One orphan that cannot be removed does not keep the others. The first error is the one to
    // answer.
    Outcome<void> result;
    for (const std::string& orphan : left.names) {
        if (Outcome<void> removed = removeFrom(directory, orphan); !removed && result) {
            result = std::move(removed);
        }
    }
    return result ? removeFrom(volume_.root(), name) : std::move(result);
}

void OrphanDirectory::cleanUp() {
    const OwnRequests own;
    for (int i = 0; i < kNamesMax; ++i) {
        const std::string name = candidate(i);
        const Outcome<std::optional<ItemRef>> found = find(volume_.root(), name);
        if (found && !*found) {
            continue; // the usual case: the last unmount was clean
        }
        // Without the mark, the name is a user's.
        if (found && !volume_.xattrSize(FSFileName(kMarker), (*found)->item())) {
            continue;
        }
        const Outcome<void> emptied = found ? empty((*found)->item(), name) : found.error();
        if (!emptied) {
            log().error(
                fmt::format("emptying {}: {}", name, emptied.error().localizedDescription()));
        }
    }
}

} // namespace tavelin
