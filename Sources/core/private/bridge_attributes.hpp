/// The bridge's attributes of an item as the core's.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/values.hpp"

namespace tavelin {

[[nodiscard]] inline std::timespec timespecOf(const ntb_time& time) noexcept {
    return {.tv_sec = static_cast<std::time_t>(time.seconds),
            .tv_nsec = static_cast<long>(time.nanoseconds)};
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
            .accessTime = timespecOf(record.access_time),
            .modifyTime = timespecOf(record.modify_time),
            .changeTime = timespecOf(record.change_time),
            .birthTime = timespecOf(record.birth_time)};
}

} // namespace tavelin
