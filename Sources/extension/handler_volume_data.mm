// Contents, the volume's name and extended attributes.
#import "extension/handler_volume.h"

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000

using tavelin::argumentsOf;
using tavelin::freeSpace;
using tavelin::freeSpaceOf;
using tavelin::given;
using tavelin::serve;
using tavelin::serveInOrder;
using tavelin::toCore;
using tavelin::toFSKit;

@implementation TavelinHandlerVolume (Data)

- (void)readFromFile:(FSItem *)item
              offset:(off_t)offset
              length:(size_t)length
          intoBuffer:(FSMutableFileDataBuffer *)buffer
        replyHandler:(void (^)(FSReadFileResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&]() -> std::tuple<FSReadFileResult *, NSError *> {
        // The memory is FSKit's own and shared with the kernel: nothing is copied here.
        fskit::FSMutableFileDataBuffer memory(
            {static_cast<std::byte *>([buffer mutableBytes]), buffer.length});
        const auto count = _volume->read(toCore(item), offset, length, memory);
        if (!count) {
            return {nil, toFSKit(count.error())};
        }
        return argumentsOf<FSReadFileResult *, NSError *>(
            _names->attributesBeside(toCore(item)), [&](const fskit::FSItemAttributes &attributes) {
                return given([[FSReadFileResult alloc] initWithBytesRead:*count
                                                          itemAttributes:toFSKit(attributes)]);
            });
    });
}

- (void)writeContents:(NSData *)contents
               toFile:(FSItem *)item
             atOffset:(off_t)offset
         replyHandler:(void (^)(FSWriteFileResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        const fskit::FSItemGetAttributesRequest wanted;
        return argumentsOf<FSWriteFileResult *, NSError *>(
            _volume->write(tavelin::bytesOf(contents), toCore(item), offset, &wanted),
            [&](const fskit::FSWriteFileResult &written) {
                return given([[FSWriteFileResult alloc]
                    initWithBytesWritten:written.bytesWritten
                          itemAttributes:toFSKit(_names->ofChanged(written.itemAttributes,
                                                                   toCore(item)))
                               freeSpace:freeSpace(written.freeSpace)]);
            });
    });
}

- (void)preallocateSpaceForItem:(FSItem *)item
                       atOffset:(off_t)offset
                         length:(size_t)length
                          flags:(FSPreallocateFlags)flags
                        context:(FSContext *)context
                   replyHandler:(void (^)(FSPreallocateResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        return argumentsOf<FSPreallocateResult *, NSError *>(
            _volume->preallocateSpace(toCore(item), offset, length, flags),
            [&](const fskit::FSPreallocateResult &done) {
                return given([[FSPreallocateResult alloc]
                    initWithBytesAllocated:done.bytesAllocated
                            itemAttributes:toFSKit(_names->adjusted(done.itemAttributes))
                                 freeSpace:freeSpace(done.freeSpace)]);
            });
    });
}

- (void)seekWithinItem:(FSItem *)item
            fromOffset:(off_t)offset
                region:(FSSeekRegion)region
               context:(FSContext *)context
          replyHandler:(void (^)(FSSeekRegionResult *result, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSSeekRegionResult *, NSError *>(
            _volume->seekRegion(toCore(item), offset, static_cast<fskit::FSSeekRegion>(region)),
            [](std::uint64_t found) {
                return given(
                    [[FSSeekRegionResult alloc] initWithReturnedOffset:static_cast<off_t>(found)]);
            });
    });
}

- (BOOL)isOpenCloseInhibited {
    return _volume->isOpenCloseInhibited();
}

- (void)openItem:(FSItem *)item
       withModes:(FSVolumeOpenModes)modes
         context:(FSContext *)context
    replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _volume->openItem(toCore(item), modes); });
}

- (void)closeItem:(FSItem *)item
     keepingModes:(FSVolumeOpenModes)modes
          context:(FSContext *)context
     replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        _volume->closeItem(toCore(item), modes);
        return tavelin::Outcome<void>();
    });
}

- (void)deactivateItem:(FSItem *)item
               context:(FSContext *)context
          replyHandler:(void (^)(FSDeactivateItemResult *result, NSError *error))reply {
    serveInOrder(_order, reply, [&] {
        _names->deactivateItem(toCore(item));
        return given([[FSDeactivateItemResult alloc] initWithFreeSpace:freeSpaceOf(*_volume)]);
    });
}

@end

@implementation TavelinHandlerVolume (Names)

- (void)setVolumeName:(FSFileName *)name
              context:(FSContext *)context
         replyHandler:(void (^)(FSVolumeRenameResult *result, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSVolumeRenameResult *, NSError *>(
            _volume->setVolumeName(toCore(name)), [&](const fskit::FSFileName &renamed) {
                self.name = toFSKit(renamed);
                return given([[FSVolumeRenameResult alloc] initWithNewName:self.name]);
            });
    });
}

- (void)getXattrNamed:(FSFileName *)name
               ofItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:(void (^)(FSGetXattrResult *result, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSGetXattrResult *, NSError *>(
            _volume->getXattr(toCore(name), toCore(item)), [](const std::vector<std::byte> &value) {
                return given([[FSGetXattrResult alloc] initWithXattrValue:toFSKit(value)]);
            });
    });
}

- (void)setXattrNamed:(FSFileName *)name
               toData:(NSData *)value
               onItem:(FSItem *)item
               policy:(FSSetXattrPolicy)policy
              context:(FSContext *)context
         replyHandler:(void (^)(FSSetXattrResult *result, NSError *error))reply {
    serve(reply, [&]() -> std::tuple<FSSetXattrResult *, NSError *> {
        std::optional<std::span<const std::byte>> bytes;
        if (value != nil) {
            bytes = tavelin::bytesOf(value);
        }
        const auto set = _volume->setXattr(toCore(name), bytes, toCore(item),
                                           static_cast<fskit::FSSetXattrPolicy>(policy));
        if (!set) {
            return {nil, toFSKit(set.error())};
        }
        return given([[FSSetXattrResult alloc] initWithFreeSpace:freeSpaceOf(*_volume)]);
    });
}

- (void)listXattrsOfItem:(FSItem *)item
                 context:(FSContext *)context
            replyHandler:(void (^)(FSListXattrsResult *result, NSError *error))reply {
    serve(reply, [&] {
        return argumentsOf<FSListXattrsResult *, NSError *>(
            _volume->listXattrs(toCore(item)), [](const std::vector<fskit::FSFileName> &names) {
                return given([[FSListXattrsResult alloc] initWithXattrNames:toFSKit(names)]);
            });
    });
}

@end

#endif
