#import "extension/volume.h"

#include "extension/reply.hpp"

#include <utility>

using tavelin::answerWith;
using tavelin::serve;
using tavelin::toCore;
using tavelin::toFSKit;

namespace {

using fskit::MaybeError;

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
- (FSMountOptions)requestedMountOptions API_AVAILABLE(macos(26.4)) {
    return _volume->ntfs->readOnly() ? FSMountOptionsReadOnly : 0;
}

// Lifecycle

- (void)activateWithOptions:(FSTaskOptions *)options
               replyHandler:(void (^)(FSItem *rootItem, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->activate(toCore(options),
                          [&](const fskit::FSItemRef &root, const MaybeError &error) {
                              if (error) {
                                  answer(nil, toFSKit(error));
                                  return;
                              }
                              _fileSystem.get().containerStatus = [FSContainerStatus active];
                              answer(_handed->found(root), nil);
                          });
    });
}

- (void)deactivateWithOptions:(FSDeactivateOptions)options
                 replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->deactivate(options, [&](const MaybeError &error) {
            if (!error) {
                _fileSystem.get().containerStatus = [FSContainerStatus ready];
            }
            answer(toFSKit(error));
        });
    });
}

- (void)mountWithOptions:(FSTaskOptions *)options replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) { _volume->mount(toCore(options), answerWith(answer)); });
}

- (void)unmountWithReplyHandler:(void (^)(void))reply {
    serve(reply, [&](auto &answer) { _volume->unmount([&] { answer(); }); });
}

- (void)synchronizeWithFlags:(FSSyncFlags)flags replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->synchronize(static_cast<fskit::FSSyncFlags>(flags), answerWith(answer));
    });
}

// Items

- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
           replyHandler:(void (^)(FSItem *item, FSFileName *itemName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->lookupItem(toCore(name), toCore(directory),
                            [&](const fskit::FSItemRef &item, const fskit::FSFileName &itemName,
                                const MaybeError &error) {
                                if (error) {
                                    answer(nil, nil, toFSKit(error));
                                } else {
                                    answer(_handed->found(item), toFSKit(itemName), nil);
                                }
                            });
    });
}

- (void)reclaimItem:(FSItem *)item replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) { _handed->reclaim(item, answerWith(answer)); });
}

- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->getAttributes(toCore(desiredAttributes), toCore(item), answerWith(answer));
    });
}

- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        _volume->setAttributes(
            request, toCore(item),
            [&](const std::optional<fskit::FSItemAttributes> &attributes, const MaybeError &error) {
                newAttributes.consumedAttributes =
                    static_cast<FSItemAttribute>(request.consumedAttributes);
                answer(error ? nil : toFSKit(attributes), toFSKit(error));
            });
    });
}

- (void)readSymbolicLink:(FSItem *)item
            replyHandler:(void (^)(FSFileName *contents, NSError *error))reply {
    serve(reply,
          [&](auto &answer) { _volume->readSymbolicLink(toCore(item), answerWith(answer)); });
}

- (void)enumerateDirectory:(FSItem *)directory
          startingAtCookie:(FSDirectoryCookie)cookie
                  verifier:(FSDirectoryVerifier)verifier
       providingAttributes:(FSItemGetAttributesRequest *)attributes
               usingPacker:(FSDirectoryEntryPacker *)packer
              replyHandler:(void (^)(FSDirectoryVerifier currentVerifier, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        PackerAdapter adapter(packer);
        const fskit::FSItemGetAttributesRequest wanted = toCore(attributes);
        _volume->enumerateDirectory(
            toCore(directory), cookie, verifier, attributes != nil ? &wanted : nullptr, adapter,
            [&](fskit::FSDirectoryVerifier current, const MaybeError &error) {
                answer(current, toFSKit(error));
            });
    });
}

// Names

- (void)createItemNamed:(FSFileName *)name
                   type:(FSItemType)type
            inDirectory:(FSItem *)directory
             attributes:(FSItemSetAttributesRequest *)newAttributes
           replyHandler:(void (^)(FSItem *newItem, FSFileName *newItemName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        _volume->createItem(toCore(name), static_cast<fskit::FSItemType>(type), toCore(directory),
                            request,
                            [&](const fskit::FSItemRef &item, const fskit::FSFileName &itemName,
                                const MaybeError &error) {
                                newAttributes.consumedAttributes =
                                    static_cast<FSItemAttribute>(request.consumedAttributes);
                                if (error) {
                                    answer(nil, nil, toFSKit(error));
                                } else {
                                    answer(_handed->created(item), toFSKit(itemName), nil);
                                }
                            });
    });
}

- (void)createSymbolicLinkNamed:(FSFileName *)name
                    inDirectory:(FSItem *)directory
                     attributes:(FSItemSetAttributesRequest *)newAttributes
                   linkContents:(FSFileName *)contents
                   replyHandler:
                       (void (^)(FSItem *newItem, FSFileName *newItemName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        _volume->createSymbolicLink(toCore(name), toCore(directory), request, toCore(contents),
                                    [&](const fskit::FSItemRef &item,
                                        const fskit::FSFileName &itemName,
                                        const MaybeError &error) {
                                        if (error) {
                                            answer(nil, nil, toFSKit(error));
                                        } else {
                                            answer(_handed->created(item), toFSKit(itemName), nil);
                                        }
                                    });
    });
}

- (void)createLinkToItem:(FSItem *)item
                   named:(FSFileName *)name
             inDirectory:(FSItem *)directory
            replyHandler:(void (^)(FSFileName *linkName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->createLink(toCore(item), toCore(name), toCore(directory), answerWith(answer));
    });
}

- (void)removeItem:(FSItem *)item
             named:(FSFileName *)name
     fromDirectory:(FSItem *)directory
      replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->removeItem(toCore(item), toCore(name), toCore(directory),
                            [&](const MaybeError &error) {
                                if (!error) {
                                    _handed->removed(item);
                                }
                                answer(toFSKit(error));
                            });
    });
}

- (void)renameItem:(FSItem *)item
       inDirectory:(FSItem *)sourceDirectory
             named:(FSFileName *)sourceName
         toNewName:(FSFileName *)destinationName
       inDirectory:(FSItem *)destinationDirectory
          overItem:(FSItem *)overItem
      replyHandler:(void (^)(FSFileName *newName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->renameItem(toCore(item), toCore(sourceDirectory), toCore(sourceName),
                            toCore(destinationName), toCore(destinationDirectory), toCore(overItem),
                            answerWith(answer));
    });
}

@end
