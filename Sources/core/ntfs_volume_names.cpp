// Making, linking, removing and renaming items.
#include "core/ntfs_volume.hpp"
#include "core/private/bridge_attributes.hpp"
#include "core/private/bridge_text.hpp"

namespace tavelin {

std::uint64_t NTFSVolume::create(std::string_view name, std::uint64_t parent, NTFSItemType type) {
    const BridgeText text(name);
    std::uint64_t ino = 0;
    check(locked([&](ntb_vol* vol) {
        return ntb_create(vol, parent, text.cString(), static_cast<std::uint32_t>(type), &ino);
    }));
    return ino;
}

std::uint64_t NTFSVolume::symlink(std::string_view name, std::uint64_t parent,
                                  std::string_view target) {
    const BridgeText nameText(name);
    const BridgeText targetText(target);
    std::uint64_t ino = 0;
    check(locked([&](ntb_vol* vol) {
        const auto make = windowsLinks_ ? ntb_symlink_windows : ntb_symlink;
        return make(vol, parent, nameText.cString(), targetText.cString(), &ino);
    }));
    return ino;
}

NTFSAttributes NTFSVolume::createDescribed(std::string_view name, std::uint64_t parent,
                                           NTFSItemType type) {
    const BridgeText text(name);
    ntb_attr record{};
    check(locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const std::int32_t error =
            ntb_create(vol, parent, text.cString(), static_cast<std::uint32_t>(type), &ino);
        return error != 0 ? error : ntb_getattr(vol, ino, &record);
    }));
    return attributesOf(record);
}

NTFSAttributes NTFSVolume::symlinkDescribed(std::string_view name, std::uint64_t parent,
                                            std::string_view target) {
    const BridgeText nameText(name);
    const BridgeText targetText(target);
    ntb_attr record{};
    check(locked([&](ntb_vol* vol) {
        std::uint64_t ino = 0;
        const std::int32_t error =
            ntb_symlink(vol, parent, nameText.cString(), targetText.cString(), &ino);
        return error != 0 ? error : ntb_getattr(vol, ino, &record);
    }));
    return attributesOf(record);
}

std::string NTFSVolume::readlink(std::uint64_t ino) {
    return locked([&](ntb_vol* vol) -> std::string {
        char* target = nullptr;
        check(ntb_readlink_in_mount(vol, ino, &target));
        return BridgeOwned<char>(target).get();
    });
}

void NTFSVolume::link(std::uint64_t ino, std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    check(locked([&](ntb_vol* vol) { return ntb_link(vol, ino, parent, text.cString()); }));
}

std::uint32_t NTFSVolume::countNames(std::uint64_t ino) {
    std::uint32_t count = 0;
    check(locked([&](ntb_vol* vol) { return ntb_count_names(vol, ino, &count); }));
    return count;
}

void NTFSVolume::remove(std::string_view name, std::uint64_t parent) {
    const BridgeText text(name);
    check(locked([&](ntb_vol* vol) { return ntb_unlink(vol, parent, text.cString()); }));
}

void NTFSVolume::rename(std::string_view name, std::uint64_t parent, std::string_view newName,
                        std::uint64_t newParent) {
    const BridgeText oldText(name);
    const BridgeText newText(newName);
    check(locked([&](ntb_vol* vol) {
        // A journal makes each flush atomic, whatever the order of its writes.
        ntb_set_ordered_writes(vol, box_.device->backlog().capacity == 0 ? 1 : 0);
        return ntb_rename(vol, parent, oldText.cString(), newParent, newText.cString());
    }));
}

} // namespace tavelin
