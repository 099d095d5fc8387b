// The volume's own name, and the named streams that are its items' extended attributes.
#import "extension/volume.h"

#include "extension/reply.hpp"

using tavelin::answerWith;
using tavelin::serve;
using tavelin::toCore;
using tavelin::toFSKit;

@implementation TavelinVolume (Names)

- (void)setVolumeName:(FSFileName *)name
         replyHandler:(void (^)(FSFileName *newName, NSError *error))reply {
    serve(reply, [&](auto &answer) {
        _volume->setVolumeName(toCore(name), [&](const std::optional<fskit::FSFileName> &newName,
                                                 const fskit::MaybeError &error) {
            if (!error) {
                self.name = toFSKit(newName);
            }
            answer(error ? nil : toFSKit(newName), toFSKit(error));
        });
    });
}

- (void)getXattrNamed:(FSFileName *)name
               ofItem:(FSItem *)item
         replyHandler:(void (^)(NSData *value, NSError *error))reply {
    serve(reply,
          [&](auto &answer) { _volume->getXattr(toCore(name), toCore(item), answerWith(answer)); });
}

- (void)setXattrNamed:(FSFileName *)name
               toData:(NSData *)value
               onItem:(FSItem *)item
               policy:(FSSetXattrPolicy)policy
         replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&](auto &answer) {
        std::optional<std::span<const std::byte>> bytes;
        if (value != nil) {
            bytes = tavelin::bytesOf(value);
        }
        _volume->setXattr(toCore(name), bytes, toCore(item),
                          static_cast<fskit::FSSetXattrPolicy>(policy), answerWith(answer));
    });
}

- (void)listXattrsOfItem:(FSItem *)item
            replyHandler:(void (^)(NSArray<FSFileName *> *value, NSError *error))reply {
    serve(reply, [&](auto &answer) { _volume->listXattrs(toCore(item), answerWith(answer)); });
}

@end
