#import "extension/volume.h"

#include "extension/reply.hpp"

#include <utility>

using tavelin::argumentsOf;
using tavelin::serve;
using tavelin::toCore;
using tavelin::toFSKit;

namespace {

/// The front end's packer over FSKit's, for the length of one request.
class PackerAdapter final : public fskit::FSDirectoryEntryPacker {
  public:
    explicit PackerAdapter(::FSDirectoryEntryPacker *packer) : packer_(packer) {}

    bool packEntry(const fskit::FSFileName &name, fskit::FSItemType itemType,
                   fskit::FSItemID itemID, fskit::FSDirectoryCookie nextCookie,
                   const fskit::FSItemAttributes *attributes) override {
        @autoreleasepool {
            return [packer_.get()
                packEntryWithName:toFSKit(name)
                         itemType:static_cast<FSItemType>(itemType)
                           itemID:static_cast<FSItemID>(itemID)
                       nextCookie:nextCookie
                       attributes:attributes != nullptr ? toFSKit(*attributes) : nil];
        }
    }

  private:
    const tavelin::Strong<::FSDirectoryEntryPacker *> packer_;
};

/// What lookups and creations reply.
using NamedItem = std::tuple<FSItem *, FSFileName *, NSError *>;

NamedItem newItem(const tavelin::Outcome<fskit::FSCreateItemResult> &made,
                  tavelin::HandedItems &handed) {
    return argumentsOf<FSItem *, FSFileName *, NSError *>(
        made, [&](const fskit::FSCreateItemResult &result) {
            return NamedItem(handed.handOut(result.newItem), toFSKit(result.newItemName), nil);
        });
}

} // namespace

@implementation TavelinVolume

- (instancetype)initWithVolume:(std::shared_ptr<tavelin::TavelinVolume>)volume
                    fileSystem:(FSUnaryFileSystem *)fileSystem {
    FSVolumeIdentifier *identifier =
        tavelin::made([[FSVolumeIdentifier alloc] initWithUUID:toFSKit(volume->volumeID().uuid)]);
    if ((self = [super
             initWithVolumeID:identifier
                   volumeName:toFSKit(static_cast<const fskit::FSVolume &>(*volume).name())])) {
        _handed = std::make_unique<tavelin::HandedItems>(*volume);
        _volume = std::move(volume);
        // FSKit need not send a synchronise, and has none for a single file. The last close is then
        // all that tells when a program is done with it.
        _volume->setOpenCloseInhibited(false);
        _fileSystem = tavelin::Strong(fileSystem);
    }
    return self;
}

- (NSUInteger)handedItemCount {
    return _handed->count();
}

// What the volume is

- (NSInteger)maximumLinkCount {
    return _volume->maximumLinkCount();
}

- (NSInteger)maximumNameLength {
    return _volume->maximumNameLength();
}

- (BOOL)restrictsOwnershipChanges {
    return _volume->restrictsOwnershipChanges();
}

- (BOOL)truncatesLongNames {
    return _volume->truncatesLongNames();
}

- (NSInteger)maximumXattrSize {
    return _volume->maximumXattrSize();
}

- (uint64_t)maximumFileSize {
    return _volume->maximumFileSize();
}

- (FSVolumeSupportedCapabilities *)supportedVolumeCapabilities {
    return toFSKit(_volume->supportedVolumeCapabilities());
}

- (FSStatFSResult *)volumeStatistics {
    return toFSKit(_volume->volumeStatistics());
}

// NTFS frees a file's record with its last name. FSKit keeps an open file's name out of sight until
// the last close instead.
- (BOOL)enableOpenUnlinkEmulation {
    return YES;
}

// Asked for after the mount: a volume that could only be opened read-only is then mounted so, and
// the Finder offers no changes.
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 260400
- (FSMountOptions)requestedMountOptions API_AVAILABLE(macos(26.4)) {
    return _volume->readOnly() ? FSMountOptionsReadOnly : 0;
}
#endif

// Lifecycle

- (void)activateWithOptions:(FSTaskOptions *)options
               replyHandler:(void (^)(FSItem *rootItem, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSItem *, NSError *>(
            _volume->activate(toCore(options)),
            [&](const fskit::FSItemRef &root) -> std::tuple<FSItem *, NSError *> {
                _fileSystem.get().containerStatus = [FSContainerStatus active];
                return {_handed->handOut(root), nil};
            });
    });
}

- (void)deactivateWithOptions:(FSDeactivateOptions)options
                 replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        auto deactivated = _volume->deactivate(options);
        if (deactivated) {
            _fileSystem.get().containerStatus = [FSContainerStatus ready];
        }
        return deactivated;
    });
}

- (void)mountWithOptions:(FSTaskOptions *)options replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _volume->mount(toCore(options)); });
}

- (void)unmountWithReplyHandler:(void (^)(void))reply {
    serve(reply, [&] {
        _volume->unmount();
        return std::tuple<>();
    });
}

- (void)synchronizeWithFlags:(FSSyncFlags)flags replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _volume->synchronize(static_cast<fskit::FSSyncFlags>(flags)); });
}

// Items

- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
           replyHandler:(void (^)(FSItem *item, FSFileName *itemName, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSItem *, FSFileName *, NSError *>(
            _volume->lookupItem(toCore(name), toCore(directory)),
            [&](const fskit::FSLookupItemResult &result) {
                return NamedItem(_handed->handOut(result.foundItem), toFSKit(result.itemName), nil);
            });
    });
}

- (void)reclaimItem:(FSItem *)item replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        _handed->reclaim(item);
        return tavelin::Outcome<void>();
    });
}

- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&] { return _volume->getAttributes(toCore(desiredAttributes), toCore(item)); });
}

- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        auto attributes = _volume->setAttributes(request, toCore(item));
        newAttributes.consumedAttributes = static_cast<FSItemAttribute>(request.consumedAttributes);
        return attributes;
    });
}

- (void)readSymbolicLink:(FSItem *)item
            replyHandler:(void (^)(FSFileName *contents, NSError *error))reply {
    serve(reply, [&] { return _volume->readSymbolicLink(toCore(item)); });
}

// A failed page leaves the caller with the verifier that it has.
- (void)enumerateDirectory:(FSItem *)directory
          startingAtCookie:(FSDirectoryCookie)cookie
                  verifier:(FSDirectoryVerifier)verifier
       providingAttributes:(FSItemGetAttributesRequest *)attributes
               usingPacker:(FSDirectoryEntryPacker *)packer
              replyHandler:(void (^)(FSDirectoryVerifier currentVerifier, NSError *error))reply {
    serve(reply, [&]() -> std::tuple<FSDirectoryVerifier, NSError *> {
        PackerAdapter adapter(packer);
        const fskit::FSItemGetAttributesRequest wanted = toCore(attributes);
        const auto current = _volume->enumerateDirectory(
            toCore(directory), cookie, verifier, attributes != nil ? &wanted : nullptr, adapter);
        if (!current) {
            return {verifier, toFSKit(current.error())};
        }
        return {*current, nil};
    });
}

// Names

- (void)createItemNamed:(FSFileName *)name
                   type:(FSItemType)type
            inDirectory:(FSItem *)directory
             attributes:(FSItemSetAttributesRequest *)newAttributes
           replyHandler:(void (^)(FSItem *newItem, FSFileName *newItemName, NSError *error))reply {
    serve(reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        const auto made = _volume->createItem(toCore(name), static_cast<fskit::FSItemType>(type),
                                              toCore(directory), request);
        newAttributes.consumedAttributes = static_cast<FSItemAttribute>(request.consumedAttributes);
        return newItem(made, *_handed);
    });
}

- (void)createSymbolicLinkNamed:(FSFileName *)name
                    inDirectory:(FSItem *)directory
                     attributes:(FSItemSetAttributesRequest *)newAttributes
                   linkContents:(FSFileName *)contents
                   replyHandler:
                       (void (^)(FSItem *newItem, FSFileName *newItemName, NSError *error))reply {
    serve(reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        return newItem(
            _volume->createSymbolicLink(toCore(name), toCore(directory), request, toCore(contents)),
            *_handed);
    });
}

- (void)createLinkToItem:(FSItem *)item
                   named:(FSFileName *)name
             inDirectory:(FSItem *)directory
            replyHandler:(void (^)(FSFileName *linkName, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSFileName *, NSError *>(
            _volume->createLink(toCore(item), toCore(name), toCore(directory)),
            [](const fskit::FSCreateLinkResult &made) -> std::tuple<FSFileName *, NSError *> {
                return {toFSKit(made.linkName), nil};
            });
    });
}

- (void)removeItem:(FSItem *)item
             named:(FSFileName *)name
     fromDirectory:(FSItem *)directory
      replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        return tavelin::Outcome<void>::of(
            _volume->removeItem(toCore(item), toCore(name), toCore(directory)));
    });
}

- (void)renameItem:(FSItem *)item
       inDirectory:(FSItem *)sourceDirectory
             named:(FSFileName *)sourceName
         toNewName:(FSFileName *)destinationName
       inDirectory:(FSItem *)destinationDirectory
          overItem:(FSItem *)overItem
      replyHandler:(void (^)(FSFileName *newName, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSFileName *, NSError *>(
            _volume->renameItem(toCore(item), toCore(sourceDirectory), toCore(sourceName),
                                toCore(destinationName), toCore(destinationDirectory),
                                toCore(overItem)),
            [](const fskit::FSRenameItemResult &renamed) -> std::tuple<FSFileName *, NSError *> {
                return {toFSKit(renamed.newName), nil};
            });
    });
}

@end
