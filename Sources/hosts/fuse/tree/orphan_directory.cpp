#include "hosts/fuse/tree/orphan_directory.hpp"

#include "diagnostics/log.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <vector>

namespace tavelin::fusehost {

namespace {

bool isCode(const fskit::Error& error, int32_t code) {
    return error.isPOSIX() && error.code() == code;
}

} // namespace

std::string OrphanDirectory::nameOf(fskit::FSItemID id) {
    return fmt::format("{:012x}", id);
}

Outcome<ItemRef> OrphanDirectory::open() {
    // Held across the lookup and the creation: two threads must not both find the name missing.
    const MutexLock held(lock_);
    if (directory_) {
        return directory_.duplicate();
    }
    Outcome<Found> directory = volume_.lookup(volume_.root(), kName);
    if (!directory && isCode(directory.error(), kENOENT)) {
        fskit::FSItemSetAttributesRequest hidden;
        hidden.setFlags(fskit::kHiddenFlag);
        directory = volume_.create(volume_.root(), kName, fskit::FSItemType::directory, hidden);
    }
    if (!directory) {
        return directory.error();
    }
    directory_ = std::move(directory->item);
    return directory_.duplicate();
}

Outcome<void> OrphanDirectory::remove() {
    const MutexLock held(lock_);
    if (!directory_) {
        return {};
    }
    directory_ = ItemRef();
    return removeFrom(volume_.root(), kName);
}

// A directory that is not empty stays: what is left in it is somebody else's.
Outcome<void> OrphanDirectory::removeFrom(const ItemRef& parent, std::string_view name) {
    const Outcome<Found> found = volume_.lookup(parent, name);
    if (!found) {
        return found.error();
    }
    Outcome<void> removed = Outcome<void>::of(volume_.remove(found->item, parent, name));
    return !removed && isCode(removed.error(), kENOTEMPTY) ? Outcome<void>() : std::move(removed);
}

Outcome<void> OrphanDirectory::empty(const ItemRef& directory) {
    const Outcome<std::vector<DirectoryEntry>> left = volume_.list(directory, false);
    if (!left) {
        return left.error();
    }
    Outcome<void> result;
    for (const DirectoryEntry& entry : *left) {
        // An orphan is named after its own record number. A file that a user or another system put
        // here has another name, except by a coincidence that no user produces.
        if (entry.name != nameOf(entry.itemID)) {
            continue;
        }
        if (Outcome<void> removed = removeFrom(directory, entry.name); !removed && result) {
            result = std::move(removed);
        }
    }
    return result ? removeFrom(volume_.root(), kName) : std::move(result);
}

void OrphanDirectory::cleanUp() {
    const Outcome<Found> directory = volume_.lookup(volume_.root(), kName);
    if (!directory && isCode(directory.error(), kENOENT)) {
        return; // the usual case: the last unmount was clean
    }
    if (const Outcome<void> emptied = directory ? empty(directory->item) : directory.error();
        !emptied) {
        log().error(fmt::format("emptying {}: {}", kName, emptied.error().localizedDescription()));
    }
}

} // namespace tavelin::fusehost
