/// Item types, from the volume's to the host's.
#pragma once

#include "core/values.hpp"
#include "fskit/api/item.hpp"

namespace tavelin {

[[nodiscard]] constexpr fskit::FSItemType fskitType(NTFSItemType type) noexcept {
    switch (type) {
    case NTFSItemType::directory:
        return fskit::FSItemType::directory;
    case NTFSItemType::symlink:
        return fskit::FSItemType::symlink;
    case NTFSItemType::file:
        break;
    }
    return fskit::FSItemType::file;
}

} // namespace tavelin
