#import "extension/volume.h"

#include "extension/reply.hpp"

using tavelin::serve;
using tavelin::toCore;

@implementation TavelinVolume (Data)

- (void)readFromFile:(FSItem *)item
              offset:(off_t)offset
              length:(size_t)length
          intoBuffer:(FSMutableFileDataBuffer *)buffer
        replyHandler:(void (^)(size_t actuallyRead, NSError *error))reply {
    serve(reply, [&] {
        // The memory is FSKit's own and shared with the kernel: nothing is copied here.
        fskit::FSMutableFileDataBuffer memory(
            {static_cast<std::byte *>([buffer mutableBytes]), buffer.length});
        return _volume->read(toCore(item), offset, length, memory);
    });
}

- (void)writeContents:(NSData *)contents
               toFile:(FSItem *)item
             atOffset:(off_t)offset
         replyHandler:(void (^)(size_t actuallyWritten, NSError *error))reply {
    serve(reply, [&] {
        return tavelin::argumentsOf<size_t, NSError *>(
            _volume->write(tavelin::bytesOf(contents), toCore(item), offset, nullptr),
            [](const fskit::FSWriteFileResult &written) -> std::tuple<size_t, NSError *> {
                return {written.bytesWritten, nil};
            });
    });
}

- (void)preallocateSpaceForItem:(FSItem *)item
                       atOffset:(off_t)offset
                         length:(size_t)length
                          flags:(FSPreallocateFlags)flags
                   replyHandler:(void (^)(size_t bytesAllocated, NSError *error))reply {
    serve(reply, [&] {
        return tavelin::argumentsOf<size_t, NSError *>(
            _volume->preallocateSpace(toCore(item), offset, length, flags),
            [](const fskit::FSPreallocateResult &done) -> std::tuple<size_t, NSError *> {
                return {done.bytesAllocated, nil};
            });
    });
}

- (BOOL)isOpenCloseInhibited {
    return _volume->isOpenCloseInhibited();
}

- (void)setOpenCloseInhibited:(BOOL)inhibited {
    _volume->setOpenCloseInhibited(inhibited);
}

- (void)openItem:(FSItem *)item
       withModes:(FSVolumeOpenModes)modes
    replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _volume->openItem(toCore(item), modes); });
}

- (void)closeItem:(FSItem *)item
     keepingModes:(FSVolumeOpenModes)modes
     replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        _volume->closeItem(toCore(item), modes);
        return tavelin::Outcome<void>();
    });
}

- (void)deactivateItem:(FSItem *)item replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        _names->deactivateItem(toCore(item));
        return tavelin::Outcome<void>();
    });
}

@end
