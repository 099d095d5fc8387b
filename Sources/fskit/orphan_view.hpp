/// Files without a name, as listings need to know them.
#pragma once

#include "fskit/api/item.hpp"

#include <string>

namespace tavelin {

/// What a host knows of the files that it keeps without a name, for listings. Any thread may ask.
class OrphanView {
  public:
    virtual ~OrphanView() = default;
    /// The one name in the root that is not listed; empty for none.
    virtual std::string hiddenName() = 0;
    /// Whether users have unlinked the item's last name, although the volume has one for it.
    [[nodiscard]] virtual bool contains(fskit::FSItemID item) const = 0;
};

} // namespace tavelin
