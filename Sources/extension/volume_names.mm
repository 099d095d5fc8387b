// The volume's own name, and the named streams that are its items' extended attributes.
#import "extension/volume.h"

#include "extension/reply.hpp"

using tavelin::serve;
using tavelin::toCore;
using tavelin::toFSKit;

@implementation TavelinVolume (Names)

- (void)setVolumeName:(FSFileName *)name
         replyHandler:(void (^)(FSFileName *newName, NSError *error))reply {
    serve(reply, [&] {
        auto renamed = _volume->setVolumeName(toCore(name));
        if (renamed) {
            self.name = toFSKit(*renamed);
        }
        return renamed;
    });
}

- (void)getXattrNamed:(FSFileName *)name
               ofItem:(FSItem *)item
         replyHandler:(void (^)(NSData *value, NSError *error))reply {
    serve(reply, [&] { return _volume->getXattr(toCore(name), toCore(item)); });
}

- (void)setXattrNamed:(FSFileName *)name
               toData:(NSData *)value
               onItem:(FSItem *)item
               policy:(FSSetXattrPolicy)policy
         replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        std::optional<std::span<const std::byte>> bytes;
        if (value != nil) {
            bytes = tavelin::bytesOf(value);
        }
        return _volume->setXattr(toCore(name), bytes, toCore(item),
                                 static_cast<fskit::FSSetXattrPolicy>(policy));
    });
}

- (void)listXattrsOfItem:(FSItem *)item
            replyHandler:(void (^)(NSArray<FSFileName *> *value, NSError *error))reply {
    serve(reply, [&] { return _volume->listXattrs(toCore(item)); });
}

@end
