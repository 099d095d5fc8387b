#include "hosts/fuse/parking_folder.hpp"

#include "core/driver2.hpp"
#include "diagnostics/log.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <vector>

namespace tavelin::fusehost {

namespace {

constexpr std::uint32_t kHiddenFlag = 0x8000; // UF_HIDDEN

bool isCode(const fskit::Error& error, int32_t code) {
    return error.isPOSIX() && error.code() == code;
}

} // namespace

std::string ParkingFolder::nameOf(uint64_t ino) {
    return fmt::format("{:012x}", ino);
}

Outcome<ItemRef> ParkingFolder::open() {
    const MutexLock held(lock_);
    if (folder_) {
        return folder_.again();
    }
    Outcome<ItemRef> folder = volume_.lookup(volume_.root(), kName);
    if (!folder && isCode(folder.error(), kENOENT)) {
        fskit::FSItemSetAttributesRequest hidden;
        hidden.setFlags(kHiddenFlag);
        folder = volume_.create(volume_.root(), kName, fskit::FSItemType::directory, hidden);
    }
    if (folder) {
        folder_ = folder->again();
    }
    return folder;
}

Outcome<void> ParkingFolder::remove() {
    const MutexLock held(lock_);
    if (!folder_) {
        return {};
    }
    folder_ = ItemRef();
    return removeFrom(volume_.root(), kName);
}

// What else is in a folder stays, and then so does the folder.
Outcome<void> ParkingFolder::removeFrom(const ItemRef& parent, std::string_view name) {
    const Outcome<ItemRef> item = volume_.lookup(parent, name);
    if (!item) {
        return item.error();
    }
    Outcome<void> removed = volume_.remove(*item, parent, name);
    return !removed && isCode(removed.error(), kENOTEMPTY) ? Outcome<void>() : std::move(removed);
}

Outcome<void> ParkingFolder::empty(const ItemRef& folder) {
    const Outcome<std::vector<DirectoryEntry>> left = volume_.list(folder, false);
    if (!left) {
        return left.error();
    }
    Outcome<void> result;
    for (const DirectoryEntry& entry : *left) {
        if (entry.name != nameOf(Driver2::ino(entry.itemID))) {
            continue;
        }
        if (Outcome<void> removed = removeFrom(folder, entry.name); !removed && result) {
            result = std::move(removed);
        }
    }
    return result ? removeFrom(volume_.root(), kName) : std::move(result);
}

void ParkingFolder::cleanUp() {
    const Outcome<ItemRef> folder = volume_.lookup(volume_.root(), kName);
    if (!folder && isCode(folder.error(), kENOENT)) {
        return; // as is usual
    }
    if (const Outcome<void> emptied = folder ? empty(*folder) : folder.error(); !emptied) {
        log().error(fmt::format("emptying {}: {}", kName, emptied.error().localizedDescription()));
    }
}

} // namespace tavelin::fusehost
