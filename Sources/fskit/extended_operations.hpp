/// Requests beside FSKit's, for hosts whose kernel asks for more at a time, or for other things.
///
/// They follow the rules of the requests in fskit/api/volume.hpp: one reply each, on every path,
/// and an item that is handed out is the host's until it reclaims it.
#pragma once

#include "fskit/api/volume.hpp"

#include <functional>
#include <optional>

namespace tavelin {

struct DescribedItem {
    fskit::FSItemRef item;
    fskit::FSItemAttributes attributes;
};

/// With neither an item nor an error, there is none.
using DescribedItemReply = std::function<void(std::optional<DescribedItem>, fskit::MaybeError)>;

class ExtendedOperations {
  public:
    virtual ~ExtendedOperations() = default;

    /// What a name stands for, with its attributes; no error when it stands for nothing.
    virtual void lookupWithAttributes(const fskit::FSFileName& name,
                                      const fskit::FSItemRef& directory,
                                      const DescribedItemReply& reply) = 0;
    /// The item of an entry of a directory's listing, with its attributes.
    virtual void attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory,
                                   const DescribedItemReply& reply) = 0;
    /// Gives a file a name of the host's own, beside those that users see: FSKit's hard links are
    /// refused, but a host keeps a file alive by this when its last name is taken by another.
    virtual void linkInternal(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                              const fskit::FSItemRef& directory,
                              const fskit::ErrorReply& reply) = 0;
    /// How many names a file has to lose. Its link count may be one more: a short alias counts, and
    /// goes with the name it belongs to.
    virtual void countNames(const fskit::FSItemRef& item, const fskit::CountReply& reply) = 0;
    /// The size in bytes of an extended attribute, which is not read for it.
    virtual void xattrSize(const fskit::FSFileName& name, const fskit::FSItemRef& item,
                           const fskit::CountReply& reply) = 0;
    /// Has the volume take at once the memory that it would take bit by bit, some 32 MiB: for a
    /// host that will keep it mounted and wants first requests to be as fast as later ones.
    virtual void prefaultCache(const fskit::ErrorReply& reply) = 0;
};

} // namespace tavelin
