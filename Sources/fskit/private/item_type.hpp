/// Item types, from the volume's to the host's.
#pragma once

#include "core/values.hpp"
#include "fskit/api/item.hpp"

namespace tavelin {

[[nodiscard]] constexpr fskit::FSItemType fskitType(NTFSItemType type) noexcept {
    static_assert(static_cast<int>(NTFSItemType::socket) ==
                  static_cast<int>(fskit::FSItemType::socket));
    return static_cast<fskit::FSItemType>(type); // they count alike
}

} // namespace tavelin
