// Looking names up, making, removing and renaming them.
#include "diagnostics/error_tally.hpp"
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/error_numbers.hpp"

namespace tavelin {

namespace {

/// What createItem() makes for a type; special files only where a host keeps owners.
std::optional<NTFSItemType> creatableType(fskit::FSItemType type, bool makesSpecial) {
    const auto kind = itemType(static_cast<std::uint32_t>(type));
    const bool isPlain = kind == NTFSItemType::directory || kind == NTFSItemType::file;
    return isPlain || (makesSpecial && kind != NTFSItemType::symlink) ? kind : std::nullopt;
}

fskit::FSItemAttributeSet ownerBits(const fskit::FSItemAttributes& request) {
    namespace Bit = fskit::FSItemAttribute;
    return request.validAttributes() & (Bit::mode | Bit::uid | Bit::gid);
}

/// The item of a change that stands although the item could not be read: then it has no number.
std::optional<NTFSAttributes> readable(const NTFSAttributes& item) {
    return item.ino != 0 ? std::optional(item) : std::nullopt;
}

} // namespace

fskit::FSLookupItemResult TavelinVolume::found(const NTFSAttributes& record, std::uint64_t parent,
                                               const fskit::FSFileName& name, std::uint64_t moves) {
    fskit::FSLookupItemResult result{handOut(record.reference(), parent, moves), name, {}};
    describe(record, parent, result.itemAttributes);
    return result;
}

fskit::FSCreateItemResult TavelinVolume::created(const NTFSChange& change, const NItem& parent,
                                                 const fskit::FSFileName& name,
                                                 std::uint64_t moves) {
    fskit::FSCreateItemResult result{handOut(change.item.reference(), parent.ino, moves),
                                     name,
                                     {},
                                     described(change.directory, parent.parent),
                                     change.freeBytes};
    n(result.newItem).isUnflushed.store(true, std::memory_order_relaxed);
    describe(change.item, parent.ino, result.newItemAttributes);
    return result;
}

Outcome<fskit::FSLookupItemResult> TavelinVolume::lookupItem(const fskit::FSFileName& named,
                                                             const fskit::FSItemRef& directory) {
    return request<"lookupItem">([&]() -> Outcome<fskit::FSLookupItemResult> {
        const NItem& parent = n(directory);
        std::string memory;
        std::string_view stored = name(named);
        const std::uint64_t moves = moves_;
        const std::optional<NTFSAttributes> record = find(stored, parent.reference, memory);
        if (!record) {
            // Before a file is made its name is looked up, so this answer is as usual as the other
            // and comes without the price of an exception.
            if (!OwnRequests::areMade()) {
                errorTally().record(kENOENT, "lookupItem");
            }
            return fskit::fs_errorForPOSIXError(kENOENT);
        }
        return found(*record, parent.ino, memory.empty() ? named : fskit::FSFileName(stored),
                     moves);
    });
}

Outcome<fskit::FSCreateItemResult>
TavelinVolume::createItem(const fskit::FSFileName& named, fskit::FSItemType type,
                          const fskit::FSItemRef& directory,
                          fskit::FSItemSetAttributesRequest& newAttributes) {
    return request<"createItem">([&]() -> Outcome<fskit::FSCreateItemResult> {
        const std::optional<NTFSItemType> kind = creatableType(type, defaultOwner_.has_value());
        if (!kind) {
            return fskit::fs_errorForPOSIXError(kENOTSUP);
        }
        const NItem& parent = n(directory);
        requireChangeable();
        std::string memory;
        const std::string_view stored = newName(name(named), parent.reference, memory);
        const NTFSOwner owner = ownerIn(newAttributes);
        const std::uint64_t moves = moves_;
        const NTFSChange change =
            ntfs->make(stored, parent.reference, *kind, owner, newAttributes.native().device);
        fskit::FSCreateItemResult result =
            created(change, parent, fskit::FSFileName(stored), moves);
        // FSKit's way to say which of the requested attributes were set. Those that were not are no
        // error.
        newAttributes.consumedAttributes = defaultOwner_ ? ownerBits(newAttributes) : 0;
        if (newAttributes.validAttributes() != newAttributes.consumedAttributes) {
            applyToNew(newAttributes, result);
        }
        return result;
    });
}

void TavelinVolume::applyToNew(fskit::FSItemSetAttributesRequest& request,
                               fskit::FSCreateItemResult& fresh) {
    const NItem& item = n(fresh.newItem);
    try {
        apply(request, item);
        describe(ntfs->attributes(item.reference), item.parent, fresh.newItemAttributes);
    } catch (const std::exception&) {
        // The item exists, and the host sees in `consumedAttributes` what it lacks.
    }
}

Outcome<fskit::FSCreateItemResult>
TavelinVolume::createSymbolicLink(const fskit::FSFileName& named, const fskit::FSItemRef& directory,
                                  fskit::FSItemSetAttributesRequest& newAttributes,
                                  const fskit::FSFileName& linkContents) {
    return request<"createSymbolicLink">([&] {
        const NItem& parent = n(directory);
        requireChangeable();
        std::string memory;
        const std::string_view stored = newName(name(named), parent.reference, memory);
        const std::uint64_t moves = moves_;
        const NTFSChange change =
            ntfs->makeLink(stored, parent.reference, name(linkContents), ownerIn(newAttributes));
        return created(change, parent, fskit::FSFileName(stored), moves);
    });
}

Outcome<fskit::FSCreateLinkResult>
TavelinVolume::createLink(const fskit::FSItemRef& /*item*/, const fskit::FSFileName& /*named*/,
                          const fskit::FSItemRef& /*directory*/) {
    countRequest<"createLink">();
    return fskit::fs_errorForPOSIXError(kENOTSUP);
}

Outcome<fskit::FSCreateLinkResult> TavelinVolume::linkInternal(const fskit::FSItemRef& item,
                                                               const fskit::FSFileName& named,
                                                               const fskit::FSItemRef& directory) {
    return request<"createLink">([&] {
        // The full reference: should the record have another owner by now, the bridge answers
        // ESTALE and gives no name to a stranger's file.
        const std::uint64_t file = n(item).reference;
        const NItem& parent = n(directory);
        requireChangeable();
        std::string memory;
        const std::string_view stored = newName(name(named), parent.reference, memory);
        const NTFSChange change = ntfs->link(file, stored, parent.reference);
        return fskit::FSCreateLinkResult{
            fskit::FSFileName(stored), described(change.item, parent.ino),
            described(change.directory, parent.parent), change.freeBytes};
    });
}

Outcome<fskit::FSRemoveItemResult> TavelinVolume::removeItem(const fskit::FSItemRef& /*item*/,
                                                             const fskit::FSFileName& named,
                                                             const fskit::FSItemRef& directory) {
    return request<"removeItem">([&] {
        const NItem& parent = n(directory);
        requireChangeable();
        // The item stays registered until the host reclaims it: the file may be open, or have other
        // names.
        std::string memory;
        const NTFSChange change =
            ntfs->remove(existingName(name(named), parent.reference, memory), parent.reference);
        return fskit::FSRemoveItemResult{described(readable(change.item), parent.ino),
                                         described(change.directory, parent.parent),
                                         change.freeBytes};
    });
}

Outcome<fskit::FSRenameItemResult> TavelinVolume::renameItem(
    const fskit::FSItemRef& moved, const fskit::FSItemRef& sourceDirectory,
    const fskit::FSFileName& sourceName, const fskit::FSFileName& destinationName,
    const fskit::FSItemRef& destinationDirectory, const fskit::FSItemRef& /*overItem*/) {
    return request<"renameItem">([&] {
        const NItem& from = n(sourceDirectory);
        const NItem& to = n(destinationDirectory);
        requireChangeable();
        std::string oldMemory;
        std::string newMemory;
        const std::string_view oldName = existingName(name(sourceName), from.reference, oldMemory);
        const std::string_view stored =
            renamedTo(name(destinationName), to.reference, moved, newMemory);
        const NTFSRename change = ntfs->rename(oldName, from.reference, stored, to.reference);
        if (moved != nullptr) {
            // Only after the rename has succeeded. The parent serves answers about this item, and a
            // stale one would name the old directory.
            n(moved).isUnflushed.store(true, std::memory_order_relaxed);
            if (from.ino != to.ino) {
                const MutexLock held(items);
                noteMoved(n(moved), to);
            } else {
                n(moved).parent = to.ino; // a file of two names may have been reached elsewhere
            }
        }
        // The item that was replaced stays registered until it is reclaimed: its file may have
        // other names, and must not get a second item while the host holds this one.
        fskit::FSRenameItemResult result{fskit::FSFileName(stored),
                                         described(readable(change.item), to.ino),
                                         described(change.source, from.parent),
                                         described(change.destination, to.parent),
                                         {},
                                         change.freeBytes};
        if (change.replaced) {
            result.overItemAttributes = described(change.replaced, to.ino);
        }
        return result;
    });
}

Outcome<void> TavelinVolume::exchange(const fskit::FSItemRef& item,
                                      const fskit::FSItemRef& directory,
                                      const fskit::FSFileName& named,
                                      const fskit::FSItemRef& otherItem,
                                      const fskit::FSItemRef& otherDirectory,
                                      const fskit::FSFileName& otherNamed) {
    return request<"exchange">([&] {
        const NItem& one = n(directory);
        const NItem& other = n(otherDirectory);
        requireChangeable();
        std::string memory;
        std::string otherMemory;
        ntfs->exchange(existingName(name(named), one.reference, memory), one.reference,
                       existingName(name(otherNamed), other.reference, otherMemory),
                       other.reference);
        const MutexLock held(items);
        noteMoved(n(item), other);
        noteMoved(n(otherItem), one);
    });
}

} // namespace tavelin
