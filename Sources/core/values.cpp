#include "core/values.hpp"

namespace tavelin {

std::optional<NTFSItemType> itemType(std::uint32_t rawValue) noexcept {
    if (rawValue < 1 || rawValue > 7) {
        return std::nullopt;
    }
    return static_cast<NTFSItemType>(rawValue);
}

} // namespace tavelin
