#include "hosting/volume_client.hpp"

#include "platform/error_numbers.hpp"

#include <limits>

namespace tavelin {

namespace {

using fskit::FSFileName;

constexpr fskit::FSItemGetAttributesRequest kAllAttributes{~fskit::FSItemAttributeSet{0}};

/// Requests carry signed offsets.
constexpr std::uint64_t kOffsetMax = std::numeric_limits<std::int64_t>::max();

} // namespace

Found VolumeClient::take(fskit::FSLookupItemResult result) {
    return {ItemRef(*volume_, std::move(result.foundItem)), result.itemAttributes,
            result.itemName.data()};
}

Found VolumeClient::take(fskit::FSCreateItemResult result) {
    return {ItemRef(*volume_, std::move(result.newItem)), result.newItemAttributes,
            result.newItemName.data()};
}

// ---- Lookup and attributes ---------------------------------------------------------------------

Outcome<Found> VolumeClient::rootWithAttributes() {
    const auto found = attributes(root_);
    if (!found) {
        return found.error();
    }
    return Found{root_.duplicate(), *found};
}

Outcome<Found> VolumeClient::lookup(const ItemRef& directory, std::string_view name) {
    auto found = volume_->lookupItem(FSFileName(name), directory.item());
    if (!found) {
        return found.error();
    }
    return take(std::move(*found));
}

Outcome<std::optional<Found>> VolumeClient::find(const ItemRef& directory, std::string_view name) {
    auto found = volume_->lookupItem(FSFileName(name), directory.item());
    if (found) {
        return std::optional(take(std::move(*found)));
    }
    // Any other error must not pass for absence: a caller would create the name anew.
    if (found.error() == fskit::fs_errorForPOSIXError(kENOENT)) {
        return std::optional<Found>();
    }
    return found.error();
}

Outcome<Found> VolumeClient::describe(const ItemRef& directory, fskit::FSItemID entry) {
    auto found = volume_->attributesOfEntry(entry, directory.item());
    if (!found) {
        return found.error();
    }
    return take(std::move(*found));
}

Outcome<Found> VolumeClient::itemAt(std::uint64_t reference) {
    auto found = volume_->itemAt(reference);
    if (!found) {
        return found.error();
    }
    return take(std::move(*found));
}

Outcome<Found> VolumeClient::directoryOf(const ItemRef& item) {
    auto found = volume_->directoryOf(item.item());
    if (!found) {
        return found.error();
    }
    return take(std::move(*found));
}

Outcome<fskit::FSItemAttributes> VolumeClient::attributes(const ItemRef& item) {
    return volume_->getAttributes(kAllAttributes, item.item());
}

Outcome<fskit::FSItemAttributes>
VolumeClient::setAttributes(const ItemRef& item, fskit::FSItemSetAttributesRequest& changes) {
    return volume_->setAttributes(changes, item.item());
}

Outcome<std::string> VolumeClient::readSymbolicLink(const ItemRef& item) {
    const auto target = volume_->readSymbolicLink(item.item());
    if (!target) {
        return target.error();
    }
    return target->data();
}

// ---- Directories -------------------------------------------------------------------------------

Outcome<fskit::FSDirectoryVerifier> VolumeClient::enumerate(const ItemRef& directory,
                                                            fskit::FSDirectoryCookie cookie,
                                                            fskit::FSDirectoryVerifier verifier,
                                                            bool withAttributes,
                                                            fskit::FSDirectoryEntryPacker& packer) {
    return volume_->enumerateDirectory(directory.item(), cookie, verifier,
                                       withAttributes ? &kAllAttributes : nullptr, packer);
}

Outcome<std::vector<DirectoryEntry>>
VolumeClient::list(const ItemRef& directory, bool withAttributes, std::size_t pageBytes) {
    std::vector<DirectoryEntry> entries;
    fskit::FSDirectoryCookie cookie = fskit::FSDirectoryCookieInitial;
    fskit::FSDirectoryVerifier verifier = fskit::FSDirectoryVerifierInitial;
    EntryPacker packer(pageBytes);
    while (true) {
        const auto next = enumerate(directory, cookie, verifier, withAttributes, packer);
        if (!next) {
            return next.error();
        }
        std::vector<DirectoryEntry> page = packer.take();
        // Only an empty page is the end: a short one means that the next entry did not fit.
        if (page.empty()) {
            return entries;
        }
        verifier = *next;
        cookie = page.back().nextCookie;
        for (DirectoryEntry& entry : page) {
            if (entry.name != "." && entry.name != "..") {
                entries.push_back(std::move(entry));
            }
        }
    }
}

Outcome<std::vector<DirectoryEntry>> VolumeClient::listSorted(const ItemRef& directory,
                                                              NTFSListPosition& position) {
    EntryPacker packer(std::numeric_limits<std::size_t>::max());
    const auto listed = volume_->listSorted(directory.item(), position, packer);
    return listed ? Outcome(packer.take()) : listed.error();
}

Outcome<std::string> VolumeClient::shortName(const ItemRef& directory, std::string_view name) {
    return volume_->shortName(FSFileName(name), directory.item());
}

// ---- Namespace ---------------------------------------------------------------------------------

Outcome<Found> VolumeClient::create(const ItemRef& directory, std::string_view name,
                                    fskit::FSItemType type,
                                    fskit::FSItemSetAttributesRequest& attributes) {
    auto made = volume_->createItem(FSFileName(name), type, directory.item(), attributes);
    if (!made) {
        return made.error();
    }
    return take(std::move(*made));
}

Outcome<Found> VolumeClient::create(const ItemRef& directory, std::string_view name,
                                    fskit::FSItemType type) {
    fskit::FSItemSetAttributesRequest none;
    return create(directory, name, type, none);
}

Outcome<Found> VolumeClient::createSymbolicLink(const ItemRef& directory, std::string_view name,
                                                std::string_view target,
                                                fskit::FSItemSetAttributesRequest attributes) {
    auto made = volume_->createSymbolicLink(FSFileName(name), directory.item(), attributes,
                                            FSFileName(target));
    if (!made) {
        return made.error();
    }
    return take(std::move(*made));
}

Outcome<fskit::FSCreateLinkResult>
VolumeClient::createLink(const ItemRef& item, const ItemRef& directory, std::string_view name) {
    return volume_->createLink(item.item(), FSFileName(name), directory.item());
}

Outcome<fskit::FSCreateLinkResult>
VolumeClient::linkInternal(const ItemRef& item, const ItemRef& directory, std::string_view name) {
    return volume_->linkInternal(item.item(), FSFileName(name), directory.item());
}

Outcome<std::size_t> VolumeClient::countNames(const ItemRef& item) {
    return volume_->countNames(item.item());
}

Outcome<fskit::FSRemoveItemResult>
VolumeClient::remove(const ItemRef& item, const ItemRef& directory, std::string_view name) {
    return volume_->removeItem(item.item(), FSFileName(name), directory.item());
}

Outcome<fskit::FSRenameItemResult>
VolumeClient::rename(const ItemRef& item, const ItemRef& fromDirectory, std::string_view fromName,
                     const ItemRef& toDirectory, std::string_view toName, const ItemRef& over) {
    return volume_->renameItem(item.item(), fromDirectory.item(), FSFileName(fromName),
                               FSFileName(toName), toDirectory.item(), over.item());
}

// ---- Data --------------------------------------------------------------------------------------

Outcome<void> VolumeClient::open(const ItemRef& item, fskit::FSVolumeOpenModes modes) {
    return volume_->isOpenCloseInhibited() ? Outcome<void>()
                                           : volume_->openItem(item.item(), modes);
}

void VolumeClient::close(const ItemRef& item, fskit::FSVolumeOpenModes modes) {
    if (!volume_->isOpenCloseInhibited()) {
        volume_->closeItem(item.item(), modes);
    }
}

Outcome<std::size_t> VolumeClient::read(const ItemRef& item, std::uint64_t offset,
                                        std::span<std::byte> into) {
    if (offset > kOffsetMax) {
        return fskit::fs_errorForPOSIXError(kEFBIG);
    }
    fskit::FSMutableFileDataBuffer buffer(into);
    return volume_->read(item.item(), static_cast<std::int64_t>(offset), into.size(), buffer);
}

Outcome<std::size_t> VolumeClient::write(const ItemRef& item, std::uint64_t offset,
                                         Bytes contents) {
    if (offset > kOffsetMax) {
        return fskit::fs_errorForPOSIXError(kEFBIG);
    }
    const Outcome<fskit::FSWriteFileResult> written =
        volume_->write(contents, item.item(), static_cast<std::int64_t>(offset), nullptr);
    return written ? Outcome(written->bytesWritten) : written.error();
}

// ---- Extended attributes -----------------------------------------------------------------------

Outcome<std::vector<std::byte>> VolumeClient::getXattr(const ItemRef& item, std::string_view name) {
    return volume_->getXattr(FSFileName(name), item.item());
}

Outcome<std::size_t> VolumeClient::xattrSize(const ItemRef& item, std::string_view name) {
    return volume_->xattrSize(FSFileName(name), item.item());
}

Outcome<void> VolumeClient::setXattr(const ItemRef& item, std::string_view name, Bytes value,
                                     fskit::FSSetXattrPolicy policy) {
    return volume_->setXattr(FSFileName(name), value, item.item(), policy);
}

Outcome<void> VolumeClient::removeXattr(const ItemRef& item, std::string_view name) {
    return volume_->setXattr(FSFileName(name), std::nullopt, item.item(),
                             fskit::FSSetXattrPolicy::remove);
}

Outcome<std::vector<std::string>> VolumeClient::listXattrs(const ItemRef& item) {
    const auto listed = volume_->listXattrs(item.item());
    if (!listed) {
        return listed.error();
    }
    std::vector<std::string> names;
    for (const FSFileName& name : *listed) {
        names.push_back(name.data());
    }
    return names;
}

// ---- The volume --------------------------------------------------------------------------------

Outcome<void> VolumeClient::synchronize(fskit::FSSyncFlags flags) {
    return volume_->synchronize(flags);
}

Outcome<void> VolumeClient::setName(std::string_view name) {
    return Outcome<void>::of(volume_->setVolumeName(FSFileName(name)));
}

bool VolumeClient::isReadOnly() const {
    return (volume_->requestedMountOptions() & fskit::FSMountOptionsReadOnly) != 0;
}

// ---- Life, for the module host -----------------------------------------------------------------

Outcome<void> VolumeClient::activate(const fskit::FSTaskOptions& options) {
    auto root = volume_->activate(options);
    if (!root) {
        return root.error();
    }
    root_ = ItemRef(*volume_, std::move(*root));
    return {};
}

Outcome<void> VolumeClient::mount(const fskit::FSTaskOptions& options) {
    return volume_->mount(options);
}

void VolumeClient::unmount() {
    volume_->unmount();
}

Outcome<void> VolumeClient::deactivate() {
    // Hosts may still hold references, which must not keep items of a volume that is gone.
    volume_->reclaimAll();
    return volume_->deactivate(0);
}

} // namespace tavelin
