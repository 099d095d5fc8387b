/// Directory enumeration: positions, versions, and the buffer that entries are packed into.
#pragma once

#include "fskit/api/file_name.hpp"
#include "fskit/api/item.hpp"

#include <cstdint>

namespace fskit {

/// A position in a directory; 0 is its start.
using FSDirectoryCookie = std::uint64_t;
/// The start of an enumeration.
inline constexpr FSDirectoryCookie FSDirectoryCookieInitial = 0;

/// A directory's version, as the volume counts; passed back with a cookie of it.
using FSDirectoryVerifier = std::uint64_t;
/// What a host passes when it has no verifier yet.
inline constexpr FSDirectoryVerifier FSDirectoryVerifierInitial = 0;

/// Takes the entries of one enumeration request, on the request's thread. Owned by the host.
class FSDirectoryEntryPacker {
  public:
    virtual ~FSDirectoryEntryPacker() = default;

    /// False when the entry did not fit: the request stops, and the entry must come again from the
    /// previous position. `nextCookie` is the position after this entry; `attributes` is null when
    /// none were asked for or none could be read, and valid only during the call.
    virtual bool packEntry(const FSFileName& name, FSItemType itemType, FSItemID itemID,
                           FSDirectoryCookie nextCookie, const FSItemAttributes* attributes) = 0;
};

} // namespace fskit
