// Requests beside FSKit's. They count and tally with the FSKit request that they stand for.
#include "core/driver2/item_identity.hpp"
#include "fskit/private/attempt.hpp"
#include "fskit/private/count_request.hpp"
#include "fskit/tavelin_volume.hpp"

namespace tavelin {

DescribedItem TavelinVolume::described(const NTFSAttributes& record, std::uint64_t parent) {
    DescribedItem found{item(record.ino, parent), {}};
    describe(record, parent, found.attributes);
    return found;
}

void TavelinVolume::lookupWithAttributes(const fskit::FSFileName& named,
                                         const fskit::FSItemRef& directory,
                                         const DescribedItemReply& reply) {
    countRequest<"lookupItem">();
    if (isNull(directory)) {
        reply(std::nullopt, missingItem());
        return;
    }
    auto found = attempt("lookupItem(named:inDirectory:replyHandler:)", [&] {
        const std::uint64_t parent = n(directory).ino;
        const std::optional<NTFSAttributes> record = ntfs->find(name(named), parent);
        return record ? std::optional(described(*record, parent)) : std::nullopt;
    });
    reply(std::move(found.value).value_or(std::nullopt), found.error);
}

void TavelinVolume::attributesOfEntry(fskit::FSItemID entry, const fskit::FSItemRef& directory,
                                      const DescribedItemReply& reply) {
    countRequest<"getAttributes">();
    if (isNull(directory)) {
        reply(std::nullopt, missingItem());
        return;
    }
    auto found = attempt("getAttributes(_:of:replyHandler:)", [&] {
        return described(ntfs->attributes(Driver2::ino(entry)), n(directory).ino);
    });
    reply(std::move(found.value), found.error);
}

void TavelinVolume::linkInternal(const fskit::FSItemRef& item, const fskit::FSFileName& named,
                                 const fskit::FSItemRef& directory,
                                 const fskit::ErrorReply& reply) {
    countRequest<"createLink">();
    if (isNull(item) || isNull(directory)) {
        reply(missingItem());
        return;
    }
    const auto added = attempt("createLink(to:named:inDirectory:replyHandler:)", [&] {
        ntfs->link(n(item).ino, name(named), n(directory).ino);
        changed(n(directory));
    });
    reply(added.error);
}

void TavelinVolume::countNames(const fskit::FSItemRef& item, const fskit::CountReply& reply) {
    countRequest<"getAttributes">();
    if (isNull(item)) {
        reply(0, missingItem());
        return;
    }
    const auto count = attempt("getAttributes(_:of:replyHandler:)",
                               [&] { return std::size_t{ntfs->countNames(n(item).ino)}; });
    reply(count.value.value_or(0), count.error);
}

void TavelinVolume::xattrSize(const fskit::FSFileName& named, const fskit::FSItemRef& item,
                              const fskit::CountReply& reply) {
    countRequest<"getXattr">();
    if (isNull(item)) {
        reply(0, missingItem());
        return;
    }
    const auto size = attempt("getXattr(named:of:replyHandler:)", [&] {
        return static_cast<std::size_t>(ntfs->xattrSize(name(named), n(item).ino));
    });
    reply(size.value.value_or(0), size.error);
}

void TavelinVolume::prefaultCache(const fskit::ErrorReply& reply) {
    reply(attempt("mount(options:replyHandler:)", [&] { ntfs->populateCache(); }).error);
}

} // namespace tavelin
