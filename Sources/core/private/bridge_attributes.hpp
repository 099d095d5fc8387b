/// The bridge's attributes of an item as the core's, and what operations tell of what they left.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/values.hpp"

#include <optional>

namespace tavelin {

[[nodiscard]] inline std::timespec timespecOf(const ntb_time& time) noexcept {
    return {.tv_sec = static_cast<std::time_t>(time.seconds),
            .tv_nsec = static_cast<long>(time.nanoseconds)};
}

[[nodiscard]] inline NTFSOwner ownerOf(const ntb_owner& record) noexcept {
    const auto given = [&](std::uint32_t bit, std::uint32_t value) {
        return (record.given & bit) != 0 ? std::optional(value) : std::nullopt;
    };
    return {.user = given(NTB_OWNER_USER, record.user),
            .group = given(NTB_OWNER_GROUP, record.group),
            .mode = given(NTB_OWNER_MODE, record.mode)};
}

[[nodiscard]] inline ntb_owner bridgeOwner(const NTFSOwner& owner) noexcept {
    const auto bit = [](const std::optional<std::uint32_t>& value, std::uint32_t which) {
        return value ? which : 0;
    };
    return {.given = bit(owner.user, NTB_OWNER_USER) | bit(owner.group, NTB_OWNER_GROUP) |
                     bit(owner.mode, NTB_OWNER_MODE),
            .user = owner.user.value_or(0),
            .group = owner.group.value_or(0),
            .mode = owner.mode.value_or(0)};
}

[[nodiscard]] inline NTFSAttributes attributesOf(const ntb_attr& record) noexcept {
    return {.ino = record.ino,
            .sequence = record.seq,
            .type = itemTypeFromBridge(record.type),
            .linkCount = record.link_count,
            .size = record.size,
            .allocSize = record.alloc_size,
            .hidden = (record.flags & NTB_FLAG_HIDDEN) != 0,
            .readOnly = (record.flags & NTB_FLAG_READ_ONLY) != 0,
            .system = (record.flags & NTB_FLAG_SYSTEM) != 0,
            .compressed = (record.flags & NTB_FLAG_COMPRESSED) != 0,
            .volumeLink = (record.flags & NTB_FLAG_VOLUME_LINK) != 0,
            .reparseTag = record.reparse_tag,
            .dataState = static_cast<NTFSDataState>(record.data_state),
            .device = record.device,
            .owner = ownerOf(record.owner),
            .accessTime = timespecOf(record.access_time),
            .modifyTime = timespecOf(record.modify_time),
            .changeTime = timespecOf(record.change_time),
            .birthTime = timespecOf(record.birth_time)};
}

/// The attributes of an item that an operation has just changed; absent when they cannot be read,
/// which is no failure of the operation. Under the volume's lock.
[[nodiscard]] inline std::optional<NTFSAttributes> attributesAfter(ntb_vol* vol,
                                                                   std::uint64_t ino) noexcept {
    ntb_attr record{};
    return ntb_getattr(vol, ino, &record) == 0 ? std::optional(attributesOf(record)) : std::nullopt;
}

/// Free space of the volume, in bytes. Under the volume's lock.
[[nodiscard]] inline std::uint64_t freeBytesOf(ntb_vol* vol) {
    ntb_statfs record{};
    static_cast<void>(ntb_statfs_get(vol, &record)); // always 0
    return NTFSStatFS{.clusterSize = record.clusterSize, .freeClusters = record.freeClusters}
        .freeBytes();
}

} // namespace tavelin
