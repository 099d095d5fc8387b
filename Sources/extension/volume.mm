#import "extension/volume.h"

#include "extension/packer.hpp"
#include "extension/reply.hpp"

#include <utility>

using tavelin::argumentsOf;
using tavelin::serve;
using tavelin::toCore;
using tavelin::toFSKit;

namespace {

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

// Lifecycle

- (void)activateWithOptions:(FSTaskOptions *)options
               replyHandler:(void (^)(FSItem *rootItem, NSError *error))reply {
    serve(reply, [&] { return [self activeRoot:options]; });
}

- (void)deactivateWithOptions:(FSDeactivateOptions)options
                 replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return [self deactivated:options]; });
}

// Items

- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
           replyHandler:(void (^)(FSItem *item, FSFileName *itemName, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSItem *, FSFileName *, NSError *>(
            _names->lookupItem(toCore(name), toCore(directory)),
            [&](const fskit::FSLookupItemResult &result) {
                return NamedItem(_handed->handOut(result.foundItem), toFSKit(result.itemName), nil);
            });
    });
}

- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&] { return _names->getAttributes(toCore(desiredAttributes), toCore(item)); });
}

- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
         replyHandler:(void (^)(FSItemAttributes *attributes, NSError *error))reply {
    serve(reply, [&] {
        fskit::FSItemSetAttributesRequest request = toCore(newAttributes);
        auto attributes = _names->setAttributes(request, toCore(item));
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
        tavelin::PackerAdapter adapter(packer);
        const fskit::FSItemGetAttributesRequest wanted = toCore(attributes);
        const auto current = _names->enumerateDirectory(
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
        const auto made = _names->createItem(toCore(name), static_cast<fskit::FSItemType>(type),
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
            _names->createSymbolicLink(toCore(name), toCore(directory), request, toCore(contents)),
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
            _names->removeItem(toCore(item), toCore(name), toCore(directory)));
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
            _names->renameItem(toCore(item), toCore(sourceDirectory), toCore(sourceName),
                               toCore(destinationName), toCore(destinationDirectory),
                               toCore(overItem)),
            [](const fskit::FSRenameItemResult &renamed) -> std::tuple<FSFileName *, NSError *> {
                return {toFSKit(renamed.newName), nil};
            });
    });
}

@end
