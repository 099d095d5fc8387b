#include "hosting/volume_client.hpp"

#include "hosting/reply_slot.hpp"
#include "platform/error_numbers.hpp"

#include <limits>

namespace tavelin {

namespace {

using fskit::FSFileName;

constexpr fskit::FSItemGetAttributesRequest kAllAttributes{~fskit::FSItemAttributeSet{0}};

/// Requests carry signed offsets.
constexpr std::uint64_t kOffsetMax = std::numeric_limits<std::int64_t>::max();

fskit::Error unsupported() {
    return fskit::fs_errorForPOSIXError(kENOTSUP);
}

/// Sends a request and answers its first value. `send` is given the slot's handler.
template<typename... Values, typename Send>
auto ask(std::string_view request, Send&& send) {
    ReplySlot<Values...> slot(request);
    send(slot.handler());
    slot.check();
    if constexpr (sizeof...(Values) == 0) {
        return Outcome<void>(std::move(slot.error()));
    } else {
        using First = std::tuple_element_t<0, std::tuple<Values...>>;
        if (slot.error()) {
            return Outcome<First>(*std::move(slot.error()));
        }
        return Outcome<First>(std::move(slot.template value<0>()));
    }
}

/// A reply's optional value, which a successful one has.
template<typename Value>
Outcome<Value> present(Outcome<std::optional<Value>> answer) {
    if (!answer) {
        return answer.error();
    }
    if (!*answer) {
        return fskit::fs_errorForPOSIXError(kEIO);
    }
    return *std::move(*answer);
}

} // namespace

VolumeClient::VolumeClient(std::shared_ptr<fskit::FSVolume> volume)
    : volume_(std::move(volume)),
      operations_(dynamic_cast<fskit::FSVolumeOperations*>(volume_.get())),
      data_(dynamic_cast<fskit::FSVolumeReadWriteOperations*>(volume_.get())),
      opening_(dynamic_cast<fskit::FSVolumeOpenCloseOperations*>(volume_.get())),
      naming_(dynamic_cast<fskit::FSVolumeRenameOperations*>(volume_.get())),
      xattrs_(dynamic_cast<fskit::FSVolumeXattrOperations*>(volume_.get())),
      extended_(dynamic_cast<ExtendedOperations*>(volume_.get())),
      items_([this](const fskit::FSItemRef& item) {
          // The volume has nothing to refuse here, and the host no use for the item either way.
          (void)ask<>("reclaimItem",
                      [&](const auto& reply) { operations_->reclaimItem(item, reply); });
      }) {
    if (operations_ == nullptr) {
        throw unsupported();
    }
}

template<typename Send>
Outcome<ItemRef> VolumeClient::askForItem(std::string_view request, Send&& send) {
    ItemTable::InFlightLookup handOut(items_);
    auto item = ask<fskit::FSItemRef, FSFileName>(request, send);
    if (!item) {
        return item.error();
    }
    return handOut.take(std::move(*item));
}

// ---- Lookup and attributes ---------------------------------------------------------------------

Outcome<ItemRef> VolumeClient::lookup(const ItemRef& directory, std::string_view name) {
    return askForItem("lookupItem", [&](const auto& reply) {
        operations_->lookupItem(FSFileName(name), directory.item(), reply);
    });
}

Outcome<fskit::FSItemAttributes> VolumeClient::attributes(const ItemRef& item) {
    return present(
        ask<std::optional<fskit::FSItemAttributes>>("getAttributes", [&](const auto& reply) {
            operations_->getAttributes(kAllAttributes, item.item(), reply);
        }));
}

Outcome<Found> VolumeClient::withAttributes(Outcome<ItemRef> item) {
    if (!item) {
        return item.error();
    }
    auto found = attributes(*item);
    if (!found) {
        return found.error();
    }
    return Found{std::move(*item), *found};
}

template<typename Send>
Outcome<std::optional<Found>> VolumeClient::askForDescribed(std::string_view request, Send&& send) {
    if (extended_ == nullptr) {
        return unsupported();
    }
    ItemTable::InFlightLookup handOut(items_);
    auto answer = ask<std::optional<DescribedItem>>(request, send);
    if (!answer) {
        return answer.error();
    }
    if (!*answer) {
        return std::optional<Found>();
    }
    return std::optional<Found>(
        Found{handOut.take(std::move((*answer)->item)), (*answer)->attributes});
}

Outcome<std::optional<Found>> VolumeClient::find(const ItemRef& directory, std::string_view name) {
    return askForDescribed("lookupWithAttributes", [&](const auto& reply) {
        extended_->lookupWithAttributes(FSFileName(name), directory.item(), reply);
    });
}

Outcome<Found> VolumeClient::describe(const ItemRef& directory, fskit::FSItemID entry) {
    return present(askForDescribed("attributesOfEntry", [&](const auto& reply) {
        extended_->attributesOfEntry(entry, directory.item(), reply);
    }));
}

Outcome<fskit::FSItemAttributes>
VolumeClient::setAttributes(const ItemRef& item, fskit::FSItemSetAttributesRequest& changes) {
    return present(
        ask<std::optional<fskit::FSItemAttributes>>("setAttributes", [&](const auto& reply) {
            operations_->setAttributes(changes, item.item(), reply);
        }));
}

Outcome<std::string> VolumeClient::readSymbolicLink(const ItemRef& item) {
    auto target =
        present(ask<std::optional<FSFileName>>("readSymbolicLink", [&](const auto& reply) {
            operations_->readSymbolicLink(item.item(), reply);
        }));
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
    return ask<fskit::FSDirectoryVerifier>("enumerateDirectory", [&](const auto& reply) {
        operations_->enumerateDirectory(directory.item(), cookie, verifier,
                                        withAttributes ? &kAllAttributes : nullptr, packer, reply);
    });
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

// ---- Namespace ---------------------------------------------------------------------------------

Outcome<ItemRef> VolumeClient::create(const ItemRef& directory, std::string_view name,
                                      fskit::FSItemType type,
                                      fskit::FSItemSetAttributesRequest& attributes) {
    return askForItem("createItem", [&](const auto& reply) {
        operations_->createItem(FSFileName(name), type, directory.item(), attributes, reply);
    });
}

Outcome<ItemRef> VolumeClient::create(const ItemRef& directory, std::string_view name,
                                      fskit::FSItemType type) {
    fskit::FSItemSetAttributesRequest none;
    return create(directory, name, type, none);
}

Outcome<ItemRef> VolumeClient::createSymbolicLink(const ItemRef& directory, std::string_view name,
                                                  std::string_view target) {
    fskit::FSItemSetAttributesRequest none;
    return askForItem("createSymbolicLink", [&](const auto& reply) {
        operations_->createSymbolicLink(FSFileName(name), directory.item(), none,
                                        FSFileName(target), reply);
    });
}

Outcome<void> VolumeClient::createLink(const ItemRef& item, const ItemRef& directory,
                                       std::string_view name) {
    const auto answer = ask<std::optional<FSFileName>>("createLink", [&](const auto& reply) {
        operations_->createLink(item.item(), FSFileName(name), directory.item(), reply);
    });
    return answer ? Outcome<void>() : answer.error();
}

Outcome<void> VolumeClient::linkInternal(const ItemRef& item, const ItemRef& directory,
                                         std::string_view name) {
    if (extended_ == nullptr) {
        return unsupported();
    }
    return ask<>("linkInternal", [&](const auto& reply) {
        extended_->linkInternal(item.item(), FSFileName(name), directory.item(), reply);
    });
}

Outcome<std::size_t> VolumeClient::countNames(const ItemRef& item) {
    if (extended_ == nullptr) {
        return unsupported();
    }
    return ask<std::size_t>("countNames",
                            [&](const auto& reply) { extended_->countNames(item.item(), reply); });
}

Outcome<void> VolumeClient::remove(const ItemRef& item, const ItemRef& directory,
                                   std::string_view name) {
    return ask<>("removeItem", [&](const auto& reply) {
        operations_->removeItem(item.item(), FSFileName(name), directory.item(), reply);
    });
}

Outcome<void> VolumeClient::rename(const ItemRef& item, const ItemRef& fromDirectory,
                                   std::string_view fromName, const ItemRef& toDirectory,
                                   std::string_view toName, const ItemRef& over) {
    const auto answer = ask<std::optional<FSFileName>>("renameItem", [&](const auto& reply) {
        operations_->renameItem(item.item(), fromDirectory.item(), FSFileName(fromName),
                                FSFileName(toName), toDirectory.item(), over.item(), reply);
    });
    return answer ? Outcome<void>() : answer.error();
}

// ---- Data --------------------------------------------------------------------------------------

Outcome<void> VolumeClient::open(const ItemRef& item, fskit::FSVolumeOpenModes modes) {
    if (opening_ == nullptr || opening_->isOpenCloseInhibited()) {
        return {};
    }
    return ask<>("openItem",
                 [&](const auto& reply) { opening_->openItem(item.item(), modes, reply); });
}

Outcome<void> VolumeClient::close(const ItemRef& item, fskit::FSVolumeOpenModes modes) {
    if (opening_ == nullptr || opening_->isOpenCloseInhibited()) {
        return {};
    }
    return ask<>("closeItem",
                 [&](const auto& reply) { opening_->closeItem(item.item(), modes, reply); });
}

Outcome<std::size_t> VolumeClient::read(const ItemRef& item, std::uint64_t offset,
                                        std::span<std::byte> into) {
    if (data_ == nullptr) {
        return unsupported();
    }
    if (offset > kOffsetMax) {
        return fskit::fs_errorForPOSIXError(kEFBIG);
    }
    fskit::FSMutableFileDataBuffer buffer(into);
    return ask<std::size_t>("read", [&](const auto& reply) {
        data_->read(item.item(), static_cast<std::int64_t>(offset), into.size(), buffer, reply);
    });
}

Outcome<std::size_t> VolumeClient::write(const ItemRef& item, std::uint64_t offset,
                                         Bytes contents) {
    if (data_ == nullptr) {
        return unsupported();
    }
    if (offset > kOffsetMax) {
        return fskit::fs_errorForPOSIXError(kEFBIG);
    }
    return ask<std::size_t>("write", [&](const auto& reply) {
        data_->write(contents, item.item(), static_cast<std::int64_t>(offset), reply);
    });
}

// ---- Extended attributes -----------------------------------------------------------------------

Outcome<std::vector<std::byte>> VolumeClient::getXattr(const ItemRef& item, std::string_view name) {
    if (xattrs_ == nullptr) {
        return unsupported();
    }
    return ask<std::vector<std::byte>>("getXattr", [&](const auto& reply) {
        xattrs_->getXattr(FSFileName(name), item.item(), reply);
    });
}

Outcome<std::size_t> VolumeClient::xattrSize(const ItemRef& item, std::string_view name) {
    if (extended_ == nullptr) {
        return unsupported();
    }
    return ask<std::size_t>("xattrSize", [&](const auto& reply) {
        extended_->xattrSize(FSFileName(name), item.item(), reply);
    });
}

Outcome<void> VolumeClient::setXattr(const ItemRef& item, std::string_view name, Bytes value,
                                     fskit::FSSetXattrPolicy policy) {
    if (xattrs_ == nullptr) {
        return unsupported();
    }
    return ask<>("setXattr", [&](const auto& reply) {
        xattrs_->setXattr(FSFileName(name), value, item.item(), policy, reply);
    });
}

Outcome<void> VolumeClient::removeXattr(const ItemRef& item, std::string_view name) {
    if (xattrs_ == nullptr) {
        return unsupported();
    }
    return ask<>("setXattr", [&](const auto& reply) {
        xattrs_->setXattr(FSFileName(name), std::nullopt, item.item(),
                          fskit::FSSetXattrPolicy::remove, reply);
    });
}

Outcome<std::vector<std::string>> VolumeClient::listXattrs(const ItemRef& item) {
    if (xattrs_ == nullptr) {
        return unsupported();
    }
    const auto answer = ask<std::vector<FSFileName>>(
        "listXattrs", [&](const auto& reply) { xattrs_->listXattrs(item.item(), reply); });
    if (!answer) {
        return answer.error();
    }
    std::vector<std::string> names;
    for (const FSFileName& name : *answer) {
        names.push_back(name.data());
    }
    return names;
}

// ---- The volume --------------------------------------------------------------------------------

Outcome<void> VolumeClient::synchronize(fskit::FSSyncFlags flags) {
    return ask<>("synchronize", [&](const auto& reply) { operations_->synchronize(flags, reply); });
}

Outcome<void> VolumeClient::prefaultCache() {
    if (extended_ == nullptr) {
        return unsupported();
    }
    return ask<>("prefaultCache", [&](const auto& reply) { extended_->prefaultCache(reply); });
}

Outcome<void> VolumeClient::setName(std::string_view name) {
    if (naming_ == nullptr) {
        return unsupported();
    }
    const auto answer = ask<std::optional<FSFileName>>("setVolumeName", [&](const auto& reply) {
        naming_->setVolumeName(FSFileName(name), reply);
    });
    return answer ? Outcome<void>() : answer.error();
}

bool VolumeClient::isReadOnly() const {
    return (operations_->requestedMountOptions() & fskit::FSMountOptionsReadOnly) != 0;
}

void VolumeClient::setOpenCloseInhibited(bool inhibited) {
    if (opening_ != nullptr) {
        opening_->setOpenCloseInhibited(inhibited);
    }
}

// ---- Life, for the module host -----------------------------------------------------------------

Outcome<void> VolumeClient::activate(const fskit::FSTaskOptions& options) {
    ItemTable::InFlightLookup handOut(items_);
    auto root = ask<fskit::FSItemRef>(
        "activate", [&](const auto& reply) { operations_->activate(options, reply); });
    if (!root) {
        return root.error();
    }
    root_ = handOut.take(std::move(*root));
    return {};
}

Outcome<void> VolumeClient::mount(const fskit::FSTaskOptions& options) {
    return ask<>("mount", [&](const auto& reply) { operations_->mount(options, reply); });
}

void VolumeClient::unmount() {
    // This request cannot fail: its reply carries no error.
    (void)ask<>("unmount", [&](const auto& reply) {
        operations_->unmount([&reply] { reply(std::nullopt); });
    });
}

Outcome<void> VolumeClient::deactivate() {
    items_.reclaimAll();
    return ask<>("deactivate", [&](const auto& reply) { operations_->deactivate(0, reply); });
}

} // namespace tavelin
