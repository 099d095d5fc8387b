#import "extension/handler_volume.h"

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000

#include "extension/packer.hpp"

#include <utility>

using tavelin::argumentsOf;
using tavelin::freeSpace;
using tavelin::freeSpaceOf;
using tavelin::given;
using tavelin::serve;
using tavelin::serveInOrder;
using tavelin::toCore;
using tavelin::toFSKit;

@implementation TavelinHandlerVolume

// Lifecycle

- (void)activateVolumeWithOptions:(FSTaskOptions *)options
                     replyHandler:(void (^)(FSActivateResult *result, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSActivateResult *, NSError *>(
            [self activeRoot:options],
            [](FSItem *root) { return given([[FSActivateResult alloc] initWithRootItem:root]); });
    });
}

- (void)deactivateVolumeWithOptions:(FSDeactivateOptions)options
                       replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return [self deactivated:options]; });
}

// Items

- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
                context:(FSContext *)context
           replyHandler:(void (^)(FSLookupItemResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSLookupItemResult *, NSError *>(
            _names->lookupItem(toCore(name), toCore(directory)),
            [&](const fskit::FSLookupItemResult &found) {
                return given([[FSLookupItemResult alloc]
                    initWithFoundItem:_handed->handOut(found.foundItem)
                             itemName:toFSKit(found.itemName)
                       itemAttributes:toFSKit(found.itemAttributes)]);
            });
    });
}

- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:(void (^)(FSGetAttributesResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSGetAttributesResult *, NSError *>(
            _names->getAttributes(toCore(desiredAttributes), toCore(item)),
            [](const fskit::FSItemAttributes &attributes) {
                return given(
                    [[FSGetAttributesResult alloc] initWithAttributes:toFSKit(attributes)]);
            });
    });
}

- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:(void (^)(FSSetAttributesResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        const auto attributes = _names->setAttributes(request, toCore(item));
        newAttributes.consumedAttributes = static_cast<FSItemAttribute>(request.consumedAttributes);
        return argumentsOf<FSSetAttributesResult *, NSError *>(
            attributes, [&](const fskit::FSItemAttributes &changed) {
                return given([[FSSetAttributesResult alloc]
                    initWithAttributes:toFSKit(changed)
                             freeSpace:freeSpaceOf(*_volume)]);
            });
    });
}

- (void)readSymbolicLink:(FSItem *)item
                 context:(FSContext *)context
            replyHandler:(void (^)(FSReadSymlinkResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&]() -> std::tuple<FSReadSymlinkResult *, NSError *> {
        const auto contents = _volume->readSymbolicLink(toCore(item));
        if (!contents) {
            return {nil, toFSKit(contents.error())};
        }
        return argumentsOf<FSReadSymlinkResult *, NSError *>(
            _names->attributesBeside(toCore(item)), [&](const fskit::FSItemAttributes &attributes) {
                return given([[FSReadSymlinkResult alloc] initWithContents:toFSKit(*contents)
                                                         symlinkAttributes:toFSKit(attributes)]);
            });
    });
}

- (void)enumerateDirectory:(FSItem *)directory
          startingAtCookie:(FSDirectoryCookie)cookie
                  verifier:(FSDirectoryVerifier)verifier
       providingAttributes:(FSItemGetAttributesRequest *)attributes
               usingPacker:(FSDirectoryEntryPacker *)packer
                   context:(FSContext *)context
              replyHandler:(void (^)(FSEnumerateDirectoryResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        tavelin::PackerAdapter adapter(packer);
        const fskit::FSItemGetAttributesRequest wanted = toCore(attributes);
        return argumentsOf<FSEnumerateDirectoryResult *, NSError *>(
            _names->enumerateDirectory(toCore(directory), cookie, verifier,
                                       attributes != nil ? &wanted : nullptr, adapter),
            [](fskit::FSDirectoryVerifier current) {
                return given([[FSEnumerateDirectoryResult alloc] initWithVerifier:current]);
            });
    });
}

// Names

- (void)createItemNamed:(FSFileName *)name
                   type:(FSItemType)type
            inDirectory:(FSItem *)directory
             attributes:(FSItemSetAttributesRequest *)newAttributes
                context:(FSContext *)context
           replyHandler:(void (^)(FSCreateItemResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        const auto made = _names->createItem(toCore(name), static_cast<fskit::FSItemType>(type),
                                             toCore(directory), request);
        newAttributes.consumedAttributes = static_cast<FSItemAttribute>(request.consumedAttributes);
        return argumentsOf<FSCreateItemResult *, NSError *>(
            made, [&](const fskit::FSCreateItemResult &created) {
                return given([[FSCreateItemResult alloc]
                        initWithNewItem:_handed->handOut(created.newItem)
                            newItemName:toFSKit(created.newItemName)
                      newItemAttributes:toFSKit(created.newItemAttributes)
                    directoryAttributes:toFSKit(_names->ofDirectory(created.directoryAttributes,
                                                                    toCore(directory)))
                              freeSpace:freeSpace(created.freeSpace)]);
            });
    });
}

- (void)createSymbolicLinkNamed:(FSFileName *)name
                    inDirectory:(FSItem *)directory
                     attributes:(FSItemSetAttributesRequest *)newAttributes
                   linkContents:(FSFileName *)contents
                        context:(FSContext *)context
                   replyHandler:(void (^)(FSCreateSymlinkResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        return argumentsOf<FSCreateSymlinkResult *, NSError *>(
            _names->createSymbolicLink(toCore(name), toCore(directory), request, toCore(contents)),
            [&](const fskit::FSCreateItemResult &created) {
                return given([[FSCreateSymlinkResult alloc]
                        initWithNewItem:_handed->handOut(created.newItem)
                            newItemName:toFSKit(created.newItemName)
                      newItemAttributes:toFSKit(created.newItemAttributes)
                    directoryAttributes:toFSKit(_names->ofDirectory(created.directoryAttributes,
                                                                    toCore(directory)))
                              freeSpace:freeSpace(created.freeSpace)]);
            });
    });
}

- (void)createLinkToItem:(FSItem *)item
                   named:(FSFileName *)name
             inDirectory:(FSItem *)directory
                 context:(FSContext *)context
            replyHandler:(void (^)(FSCreateLinkResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSCreateLinkResult *, NSError *>(
            _volume->createLink(toCore(item), toCore(name), toCore(directory)),
            [&](const fskit::FSCreateLinkResult &made) {
                return given([[FSCreateLinkResult alloc]
                       initWithLinkName:toFSKit(made.linkName)
                         linkAttributes:toFSKit(made.linkAttributes)
                    directoryAttributes:toFSKit(_names->ofDirectory(made.directoryAttributes,
                                                                    toCore(directory)))
                              freeSpace:freeSpace(made.freeSpace)]);
            });
    });
}

- (void)removeItem:(FSItem *)item
             named:(FSFileName *)name
     fromDirectory:(FSItem *)directory
           context:(FSContext *)context
      replyHandler:(void (^)(FSRemoveItemResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSRemoveItemResult *, NSError *>(
            _names->removeItem(toCore(item), toCore(name), toCore(directory)),
            [&](const fskit::FSRemoveItemResult &removed) {
                return given([[FSRemoveItemResult alloc]
                    initWithItemAttributes:toFSKit(_names->ofRemoved(removed.itemAttributes,
                                                                     toCore(item)))
                       directoryAttributes:toFSKit(_names->ofDirectory(removed.directoryAttributes,
                                                                       toCore(directory)))
                                 freeSpace:freeSpace(removed.freeSpace)]);
            });
    });
}

- (void)renameItem:(FSItem *)item
       inDirectory:(FSItem *)sourceDirectory
             named:(FSFileName *)sourceName
         toNewName:(FSFileName *)destinationName
       inDirectory:(FSItem *)destinationDirectory
          overItem:(FSItem *)overItem
           context:(FSContext *)context
      replyHandler:(void (^)(FSRenameItemResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSRenameItemResult *, NSError *>(
            _names->renameItem(toCore(item), toCore(sourceDirectory), toCore(sourceName),
                               toCore(destinationName), toCore(destinationDirectory),
                               toCore(overItem)),
            [&](const fskit::FSRenameItemResult &renamed) {
                return given([[FSRenameItemResult alloc]
                                   initWithNewName:toFSKit(renamed.newName)
                             renamedItemAttributes:toFSKit(_names->ofChanged(
                                                       renamed.renamedItemAttributes, toCore(item)))
                         sourceDirectoryAttributes:toFSKit(_names->ofDirectory(
                                                       renamed.sourceDirectoryAttributes,
                                                       toCore(sourceDirectory)))
                    destinationDirectoryAttributes:toFSKit(_names->ofDirectory(
                                                       renamed.destinationDirectoryAttributes,
                                                       toCore(destinationDirectory)))
                                overItemAttributes:toFSKit(renamed.overItemAttributes)
                                         freeSpace:freeSpace(renamed.freeSpace)]);
            });
    });
}

@end

#endif
