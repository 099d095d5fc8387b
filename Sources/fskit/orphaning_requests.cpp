#include "fskit/orphaning_requests.hpp"

#include "core/driver2/sync_flags.hpp"
#include "fskit/private/request.hpp"
#include "platform/error_numbers.hpp"

#include <utility>

namespace tavelin {

namespace {

/// Of a request about the hidden name, which is counted and tallied as one about any other.
template<RequestName name>
fskit::Error refused(std::int32_t code) {
    return request<name>([code]() -> Outcome<void> { throw NTFSError(code); }).error();
}

} // namespace

Outcome<fskit::FSItemRef> OrphaningRequests::activate(const fskit::FSTaskOptions& options) {
    auto root = volume_.activate(options);
    // Once: an active volume may be activated again, and its orphans are in use.
    if (root && !volume_.readOnly() && !isCleanedUp_.exchange(true)) {
        orphans_.cleanUp();
    }
    return root;
}

void OrphaningRequests::unmount() {
    if (!volume_.readOnly()) {
        const OwnRequests own;
        // What cannot be removed has been logged, and is left to the next mount.
        static_cast<void>(orphans_.releaseAll());
    }
    volume_.unmount();
}

Outcome<void> OrphaningRequests::deactivate(fskit::FSDeactivateOptions options) {
    if (!volume_.readOnly() && volume_.ntfs->isMounted()) {
        const OwnRequests own;
        // What cannot be removed is left to the next mount. It is no reason to keep this one.
        static_cast<void>(orphans_.releaseAll());
    }
    return volume_.deactivate(options);
}

Outcome<void> OrphaningRequests::synchronize(fskit::FSSyncFlags flags) {
    Outcome<void> removed;
    if (Driver2::syncMustFlush(static_cast<std::int64_t>(flags))) {
        const OwnRequests own;
        removed = orphans_.persistOrphans();
    }
    Outcome<void> synchronized = volume_.synchronize(flags);
    return synchronized ? std::move(removed) : std::move(synchronized);
}

bool OrphaningRequests::isHidden(const fskit::FSFileName& name, const fskit::FSItemRef& directory) {
    return orphans_.isHidden(name.data()) && directory == volume_.root();
}

fskit::FSItemAttributes OrphaningRequests::adjusted(fskit::FSItemAttributes attributes) const {
    if (orphans_.contains(attributes.fileID())) {
        attributes.setLinkCount(0);
    }
    return attributes;
}

Outcome<fskit::FSItemAttributes>
OrphaningRequests::adjusted(Outcome<fskit::FSItemAttributes> attributes) const {
    return attributes ? adjusted(*attributes) : std::move(attributes);
}

Outcome<fskit::FSItemAttributes>
OrphaningRequests::getAttributes(const fskit::FSItemGetAttributesRequest& desired,
                                 const fskit::FSItemRef& item) {
    return adjusted(volume_.getAttributes(desired, item));
}

Outcome<fskit::FSItemAttributes>
OrphaningRequests::setAttributes(fskit::FSItemSetAttributesRequest& changes,
                                 const fskit::FSItemRef& item) {
    return adjusted(volume_.setAttributes(changes, item));
}

Outcome<fskit::FSItemAttributes> OrphaningRequests::attributesBeside(const fskit::FSItemRef& item) {
    return adjusted(volume_.attributesBeside(item));
}

fskit::FSItemAttributes OrphaningRequests::ofChanged(const fskit::FSItemAttributes& told,
                                                     const fskit::FSItemRef& item) {
    if (told.validAttributes() != 0) {
        return adjusted(told);
    }
    const auto now = attributesBeside(item);
    return now ? *now : fskit::FSItemAttributes();
}

fskit::FSItemAttributes OrphaningRequests::ofDirectory(const fskit::FSItemAttributes& told,
                                                       const fskit::FSItemRef& directory) {
    const fskit::FSItemAttributes now = ofChanged(told, directory);
    return now.validAttributes() != 0 ? now
                                      : volume_.presumed(directory, fskit::FSItemType::directory);
}

fskit::FSItemAttributes OrphaningRequests::ofRemoved(const fskit::FSItemAttributes& told,
                                                     const fskit::FSItemRef& item) {
    if (told.validAttributes() != 0 || item == nullptr) {
        return told;
    }
    fskit::FSItemAttributes gone = volume_.presumed(item, fskit::FSItemType::file);
    gone.setLinkCount(0);
    return gone;
}

Outcome<fskit::FSLookupItemResult>
OrphaningRequests::lookupItem(const fskit::FSFileName& name, const fskit::FSItemRef& directory) {
    return isHidden(name, directory) ? refused<"lookupItem">(kENOENT)
                                     : volume_.lookupItem(name, directory);
}

Outcome<fskit::FSCreateItemResult>
OrphaningRequests::createItem(const fskit::FSFileName& name, fskit::FSItemType type,
                              const fskit::FSItemRef& directory,
                              fskit::FSItemSetAttributesRequest& attributes) {
    return isHidden(name, directory) ? refused<"createItem">(kEPERM)
                                     : volume_.createItem(name, type, directory, attributes);
}

Outcome<fskit::FSCreateItemResult> OrphaningRequests::createSymbolicLink(
    const fskit::FSFileName& name, const fskit::FSItemRef& directory,
    fskit::FSItemSetAttributesRequest& attributes, const fskit::FSFileName& linkContents) {
    return isHidden(name, directory)
               ? refused<"createSymbolicLink">(kEPERM)
               : volume_.createSymbolicLink(name, directory, attributes, linkContents);
}

Outcome<fskit::FSDirectoryVerifier> OrphaningRequests::enumerateDirectory(
    const fskit::FSItemRef& directory, fskit::FSDirectoryCookie startingAt,
    fskit::FSDirectoryVerifier verifier, const fskit::FSItemGetAttributesRequest* attributes,
    fskit::FSDirectoryEntryPacker& packer) {
    return volume_.enumerate(directory, startingAt, verifier, attributes, packer, &orphans_);
}

std::optional<OrphaningRequests::NamedFile>
OrphaningRequests::fileAt(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                          const fskit::FSItemRef& directory) {
    if (item == nullptr || volume_.readOnly()) {
        return std::nullopt;
    }
    auto found = volume_.lookupItem(name, directory);
    if (!found) {
        return std::nullopt; // the request itself answers the error
    }
    NamedFile named{ItemRef(volume_, std::move(found->foundItem)), std::move(found->itemName),
                    found->itemAttributes.linkCount() > 1};
    const bool isFile = found->itemAttributes.type() == fskit::FSItemType::file;
    return isFile && named.file.item() == item ? std::optional(std::move(named)) : std::nullopt;
}

Outcome<fskit::FSRemoveItemResult>
OrphaningRequests::removeItem(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                              const fskit::FSItemRef& directory) {
    if (isHidden(name, directory)) {
        return refused<"removeItem">(kENOENT);
    }
    const MutexLock held(names_);
    if (auto removed = hostKeepsRemoved_ ? std::nullopt : orphaned(item, name, directory)) {
        countRequest<"removeItem">();
        return *removed;
    }
    return volume_.removeItem(item, name, directory);
}

std::optional<fskit::FSRemoveItemResult>
OrphaningRequests::orphaned(const fskit::FSItemRef& item, const fskit::FSFileName& name,
                            const fskit::FSItemRef& directory) {
    const OwnRequests own;
    const auto named = fileAt(item, name, directory);
    if (!named) {
        return std::nullopt;
    }
    auto removed =
        orphans_.removeAtOnce(named->file, named->mayHaveOtherNames, directory, named->name);
    return removed ? std::optional(*std::move(removed)) : std::nullopt;
}

Outcome<fskit::FSRenameItemResult> OrphaningRequests::renameItem(
    const fskit::FSItemRef& item, const fskit::FSItemRef& sourceDirectory,
    const fskit::FSFileName& sourceName, const fskit::FSFileName& destinationName,
    const fskit::FSItemRef& destinationDirectory, const fskit::FSItemRef& overItem) {
    if (isHidden(sourceName, sourceDirectory)) {
        return refused<"renameItem">(kENOENT);
    }
    if (isHidden(destinationName, destinationDirectory)) {
        return refused<"renameItem">(kEPERM);
    }
    const MutexLock held(names_);
    const auto rename = [&] {
        return volume_.renameItem(item, sourceDirectory, sourceName, destinationName,
                                  destinationDirectory, overItem);
    };
    const auto over =
        replaced(overItem == item ? nullptr : overItem, destinationName, destinationDirectory);
    auto done = rename();
    if (!over) {
        return done;
    }
    const OwnRequests own;
    if (!done) {
        volume_.retain(destinationDirectory);
        orphans_.undoReplace(over->file, ItemRef(volume_, destinationDirectory), over->name.data());
        return done;
    }
    const bool isStillLinked = orphans_.dropIfStillLinked(over->file, over->mayHaveOtherNames);
    if (auto& replacedItem = done->overItemAttributes) {
        if (!isStillLinked) {
            replacedItem->setLinkCount(0);
        } else if (const std::uint32_t links = replacedItem->linkCount(); links > 0) {
            replacedItem->setLinkCount(links - 1); // without the name in the orphan directory
        } else {
            replacedItem.reset(); // it has names and could not be read
        }
    }
    return done;
}

std::optional<OrphaningRequests::NamedFile>
OrphaningRequests::replaced(const fskit::FSItemRef& over, const fskit::FSFileName& name,
                            const fskit::FSItemRef& directory) {
    const OwnRequests own;
    auto named = fileAt(over, name, directory);
    // The old file gets a second name in the orphan directory, so that there is no moment, not even
    // after a crash, at which the target name is missing.
    return named && orphans_.linkBeforeReplace(named->file) ? std::move(named) : std::nullopt;
}

void OrphaningRequests::deactivateItem(const fskit::FSItemRef& item) {
    volume_.deactivateItem(item);
    reclaimed(item);
}

void OrphaningRequests::reclaimed(const fskit::FSItemRef& item) {
    if (item == nullptr || orphans_.isEmpty()) {
        return;
    }
    const OwnRequests own;
    const MutexLock held(names_);
    volume_.retain(item);
    orphans_.release(ItemRef(volume_, item));
}

} // namespace tavelin
