// Making, linking, removing and renaming items.
#include "core/ntfs_volume.hpp"
#include "core/private/bridge_attributes.hpp"
#include "core/private/bridge_text.hpp"

namespace tavelin {

namespace {

/// Describes an item that has just been made or linked. Its attributes are part of the answer, so
/// that not being able to read them is a failure, unlike those of its directory.
std::int32_t describeChange(ntb_vol* vol, std::uint64_t ino, std::uint64_t directory,
                            NTFSChange& out) {
    ntb_attr record{};
    if (const std::int32_t error = ntb_getattr(vol, ino, &record); error != 0) {
        return error;
    }
    out = {.item = attributesOf(record),
           .directory = attributesAfter(vol, directory),
           .freeBytes = freeBytesOf(vol)};
    return 0;
}

/// The item behind a name that is about to go. A sequence number comes with it: the record may have
/// another owner soon.
std::int32_t describeName(ntb_vol* vol, const char* name, std::uint64_t directory,
                          NTFSAttributes& out) noexcept {
    std::uint64_t ino = 0;
    ntb_attr record{};
    std::int32_t error = ntb_lookup(vol, directory, name, &ino);
    if (error == 0) {
        error = ntb_getattr(vol, ino, &record);
    }
    if (error == 0) {
        out = attributesOf(record);
    }
    return error;
}

/// What is left of an item that has lost a name: its attributes now, or, when that was its last
/// name and the record is free, those that it had, without a link.
NTFSAttributes afterLoss(ntb_vol* vol, const NTFSAttributes& before) noexcept {
    if (const auto left = attributesAfter(vol, before.reference())) {
        return *left;
    }
    NTFSAttributes gone = before;
    gone.linkCount = 0;
    return gone;
}

} // namespace

NTFSChange NTFSVolume::make(std::string_view name, std::uint64_t parent, NTFSItemType type,
                            const NTFSOwner& owner, std::uint64_t device) {
    const BridgeText text(name);
    const ntb_new_item item{
        .kind = static_cast<std::uint32_t>(type), .device = device, .owner = bridgeOwner(owner)};
    NTFSChange change;
    check(locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const std::int32_t error = ntb_make(vol, parent, text.cString(), &item, &ino);
        return error != 0 ? error : describeChange(vol, ino, parent, change);
    }));
    return change;
}

NTFSChange NTFSVolume::makeLink(std::string_view name, std::uint64_t parent,
                                std::string_view target, const NTFSOwner& owner) {
    const BridgeText nameText(name);
    const BridgeText targetText(target);
    const ntb_owner itsOwner = bridgeOwner(owner);
    NTFSChange change;
    check(locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const auto symlink = windowsLinks_ ? ntb_symlink_windows : ntb_symlink;
        const std::int32_t error =
            symlink(vol, parent, nameText.cString(), targetText.cString(), &itsOwner, &ino);
        return error != 0 ? error : describeChange(vol, ino, parent, change);
    }));
    return change;
}

std::string NTFSVolume::readlink(std::uint64_t ino) {
    return locked([&](ntb_vol* vol) -> std::string {
        char* target = nullptr;
        check(ntb_readlink_in_mount(vol, ino, &target));
        return BridgeOwned<char>(target).get();
    });
}

NTFSChange NTFSVolume::link(std::uint64_t ino, std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    NTFSChange change;
    check(locked([&](ntb_vol* vol) {
        const std::int32_t error = ntb_link(vol, ino, parent, text.cString());
        return error != 0 ? error : describeChange(vol, ino, parent, change);
    }));
    return change;
}

std::uint32_t NTFSVolume::countNames(std::uint64_t ino) {
    std::uint32_t count = 0;
    check(locked([&](ntb_vol* vol) { return ntb_count_names(vol, ino, &count); }));
    return count;
}

NTFSChange NTFSVolume::remove(std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    NTFSChange change;
    check(locked([&](ntb_vol* vol) {
        // Before the removal, because afterwards nothing leads to the item. A name that cannot be
        // described is still removed, or refused, by the bridge's own rules.
        NTFSAttributes before;
        const bool known = describeName(vol, text.cString(), parent, before) == 0;
        const std::int32_t error = ntb_unlink(vol, parent, text.cString());
        if (error == 0) {
            change = {.item = known ? afterLoss(vol, before) : before,
                      .directory = attributesAfter(vol, parent),
                      .freeBytes = freeBytesOf(vol)};
        }
        return error;
    }));
    return change;
}

NTFSRename NTFSVolume::rename(std::string_view name, std::uint64_t parent, std::string_view newName,
                              std::uint64_t newParent) {
    const BridgeText oldText(name);
    const BridgeText newText(newName);
    NTFSRename change;
    check(locked([&](ntb_vol* vol) {
        NTFSAttributes replaced;
        const bool replaces = describeName(vol, newText.cString(), newParent, replaced) == 0;
        // A journal makes each flush atomic, whatever the order of its writes.
        ntb_set_ordered_writes(vol, box_.device->backlog().capacity == 0 ? 1 : 0);
        const std::int32_t error =
            ntb_rename(vol, parent, oldText.cString(), newParent, newText.cString());
        if (error != 0) {
            return error;
        }
        // The new name leads to the item now, unless it cannot be read: the rename stands anyway.
        static_cast<void>(describeName(vol, newText.cString(), newParent, change.item));
        change.source = attributesAfter(vol, parent);
        change.destination = attributesAfter(vol, newParent);
        // Where both names were the item's own, or only the case changed, nothing was replaced.
        if (replaces && replaced.reference() != change.item.reference()) {
            change.replaced = afterLoss(vol, replaced);
        }
        change.freeBytes = freeBytesOf(vol);
        return error;
    }));
    return change;
}

void NTFSVolume::exchange(std::string_view name, std::uint64_t parent, std::string_view otherName,
                          std::uint64_t otherParent) {
    const BridgeText one(name);
    const BridgeText other(otherName);
    check(locked([&](ntb_vol* vol) {
        ntb_set_ordered_writes(vol, box_.device->backlog().capacity == 0 ? 1 : 0);
        return ntb_exchange(vol, parent, one.cString(), otherParent, other.cString());
    }));
}

} // namespace tavelin
