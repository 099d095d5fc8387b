// Looking names up, making, removing and renaming them.
#include "fskit/private/attempt.hpp"
#include "fskit/private/count_request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin {

void TavelinVolume::lookupItem(const fskit::FSFileName& named, const fskit::FSItemRef& directory,
                               const fskit::NamedItemReply& reply) {
    countRequest<"lookupItem">();
    if (isNull(directory)) {
        reply(nullptr, {}, missingItem());
        return;
    }
    auto found = attempt("lookupItem(named:inDirectory:replyHandler:)", [&] {
        const std::uint64_t parent = n(directory).ino;
        return item(ntfs->lookup(name(named), parent), parent);
    });
    reply(std::move(found.value).value_or(nullptr), named, found.error);
}

void TavelinVolume::createItem(const fskit::FSFileName& named, fskit::FSItemType type,
                               const fskit::FSItemRef& directory,
                               fskit::FSItemSetAttributesRequest& newAttributes,
                               const fskit::NamedItemReply& reply) {
    countRequest<"createItem">();
    const bool makesDirectory = type == fskit::FSItemType::directory;
    if (!makesDirectory && type != fskit::FSItemType::file) {
        reply(nullptr, {}, fskit::fs_errorForPOSIXError(kENOTSUP));
        return;
    }
    if (isNull(directory)) {
        reply(nullptr, {}, missingItem());
        return;
    }
    auto made = attempt("createItem(named:type:inDirectory:attributes:replyHandler:)", [&] {
        NItem& parent = n(directory);
        const NTFSItemType kind = makesDirectory ? NTFSItemType::directory : NTFSItemType::file;
        auto fresh = item(ntfs->create(name(named), parent.ino, kind), parent.ino);
        newAttributes.consumedAttributes = 0;
        try {
            apply(newAttributes, *fresh);
        } catch (const std::exception&) {
            // The item exists, and the host sees in `consumedAttributes` what it lacks.
        }
        changed(parent);
        return fresh;
    });
    reply(std::move(made.value).value_or(nullptr), named, made.error);
}

void TavelinVolume::createSymbolicLink(const fskit::FSFileName& named,
                                       const fskit::FSItemRef& directory,
                                       fskit::FSItemSetAttributesRequest& /*attributes*/,
                                       const fskit::FSFileName& linkContents,
                                       const fskit::NamedItemReply& reply) {
    countRequest<"createSymbolicLink">();
    if (isNull(directory)) {
        reply(nullptr, {}, missingItem());
        return;
    }
    auto made =
        attempt("createSymbolicLink(named:inDirectory:attributes:linkContents:replyHandler:)", [&] {
            NItem& parent = n(directory);
            const std::string_view linkName = name(named);
            const std::uint64_t ino = ntfs->symlink(linkName, parent.ino, name(linkContents));
            changed(parent);
            return item(ino, parent.ino);
        });
    reply(std::move(made.value).value_or(nullptr), named, made.error);
}

void TavelinVolume::createLink(const fskit::FSItemRef& /*item*/, const fskit::FSFileName& /*named*/,
                               const fskit::FSItemRef& /*directory*/,
                               const fskit::NameReply& reply) {
    countRequest<"createLink">();
    reply(std::nullopt, fskit::fs_errorForPOSIXError(kENOTSUP));
}

void TavelinVolume::removeItem(const fskit::FSItemRef& /*item*/, const fskit::FSFileName& named,
                               const fskit::FSItemRef& directory, const fskit::ErrorReply& reply) {
    countRequest<"removeItem">();
    if (isNull(directory)) {
        reply(missingItem());
        return;
    }
    reply(attempt("removeItem(_:named:fromDirectory:replyHandler:)", [&] {
              NItem& parent = n(directory);
              ntfs->remove(name(named), parent.ino);
              changed(parent);
          }).error);
}

void TavelinVolume::renameItem(const fskit::FSItemRef& moved,
                               const fskit::FSItemRef& sourceDirectory,
                               const fskit::FSFileName& sourceName,
                               const fskit::FSFileName& destinationName,
                               const fskit::FSItemRef& destinationDirectory,
                               const fskit::FSItemRef& overItem, const fskit::NameReply& reply) {
    countRequest<"renameItem">();
    if (isNull(sourceDirectory) || isNull(destinationDirectory)) {
        reply(std::nullopt, missingItem());
        return;
    }
    const auto done =
        attempt("renameItem(_:inDirectory:named:to:inDirectory:overItem:replyHandler:)", [&] {
            NItem& from = n(sourceDirectory);
            NItem& to = n(destinationDirectory);
            const std::string_view oldName = name(sourceName);
            ntfs->rename(oldName, from.ino, name(destinationName), to.ino);
            if (!isNull(moved)) {
                n(moved).parent = to.ino;
            }
            // An item that goes by a new spelling of its own name is not replaced by itself.
            if (!isNull(overItem) && overItem != moved) {
                forget(n(overItem));
            }
            changed(from);
            changed(to);
            return destinationName;
        });
    reply(done.value, done.error);
}

} // namespace tavelin
