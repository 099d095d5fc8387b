// FSKit's classes that do something: devices, tasks, buffers, packers.
#import "extension/double/fskit_double.h"

#include "extension/memory.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using tavelin::made;

static constexpr size_t kPhysicalBlock = 4096;

@implementation FSResource
- (BOOL)isRevoked {
    return NO;
}
@end

@implementation OtherResource
@end

@implementation FSBlockDeviceResource
@end

@implementation ImageResource
+ (instancetype)resourceWithImage:(const std::filesystem::path &)image writable:(BOOL)writable {
    return made([[ImageResource alloc] initWithImage:image writable:writable]);
}

- (instancetype)initWithImage:(const std::filesystem::path &)image writable:(BOOL)writable {
    if ((self = [super init])) {
        _descriptor = open(image.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
        struct stat attributes {};
        if (_descriptor < 0 || fstat(_descriptor, &attributes) != 0) {
            [self release];
            return nil;
        }
        _writable = writable;
        _size = static_cast<uint64_t>(attributes.st_size);
    }
    return self;
}

- (void)dealloc {
    if (_descriptor >= 0) {
        close(_descriptor);
    }
    [super dealloc];
}

- (NSString *)BSDName {
    return @"disk7s1";
}
- (BOOL)isWritable {
    return _writable;
}
- (BOOL)isRevoked {
    return _revokedNow;
}
- (uint64_t)blockSize {
    return 512;
}
- (uint64_t)blockCount {
    return _size / 512;
}
- (uint64_t)physicalBlockSize {
    return kPhysicalBlock;
}

// How much of a transfer may be moved; 0 with *error set when none.
- (size_t)allowed:(size_t)length at:(off_t)offset error:(NSError **)error {
    if (_revokedNow) {
        *error = fs_errorForPOSIXError(EIO);
        return 0;
    }
    if (_foreignErrors > 0) {
        --_foreignErrors;
        *error = [NSError errorWithDomain:FSKitErrorDomain
                                     code:FSErrorResourceUnusable
                                 userInfo:nil];
        return 0;
    }
    if (static_cast<size_t>(offset) % kPhysicalBlock != 0 || length % kPhysicalBlock != 0) {
        *error = fs_errorForPOSIXError(EINVAL);
        return 0;
    }
    if (_stalled) {
        return 0;
    }
    return _shortBytes > 0 ? std::min<size_t>(length, _shortBytes) : length;
}

- (size_t)readInto:(void *)buffer
        startingAt:(off_t)offset
            length:(size_t)length
             error:(NSError **)error {
    const size_t allowed = [self allowed:length at:offset error:error];
    const ssize_t count = allowed > 0 ? pread(_descriptor, buffer, allowed, offset) : 0;
    return count > 0 ? static_cast<size_t>(count) : 0;
}

- (size_t)writeFrom:(void *)buffer
         startingAt:(off_t)offset
             length:(size_t)length
              error:(NSError **)error {
    const size_t allowed = [self allowed:length at:offset error:error];
    const ssize_t count = allowed > 0 ? pwrite(_descriptor, buffer, allowed, offset) : 0;
    return count > 0 ? static_cast<size_t>(count) : 0;
}

// All metadata calls fail, as they were seen to on macOS 26: without an error of their own even.
- (BOOL)metadataReadInto:(void *)buffer
              startingAt:(off_t)offset
                  length:(size_t)length
                   error:(NSError **)error {
    return NO;
}
- (BOOL)delayedMetadataWriteFrom:(void *)buffer
                      startingAt:(off_t)offset
                          length:(size_t)length
                           error:(NSError **)error {
    return NO;
}
- (BOOL)metadataFlushWithError:(NSError **)error {
    return NO;
}
@end

// Never made themselves; what follows each overrides all that the module calls.
@implementation FSTask
@end

@implementation RecordingTask
- (void)didCompleteWithError:(NSError *)error {
    _errorCode = error.code;
    ++_completions;
}
@end

@implementation FSMutableFileDataBuffer
@end

@implementation ByteBuffer
+ (instancetype)bufferOfLength:(NSUInteger)length {
    ByteBuffer *buffer = made([ByteBuffer new]);
    buffer->_bytes.resize(length);
    return buffer;
}
- (NSUInteger)length {
    return _bytes.size();
}
- (void *)mutableBytes {
    return _bytes.data();
}
- (std::string)text:(size_t)length {
    return {_bytes.data(), length};
}
@end

@implementation FSDirectoryEntryPacker
@end

@implementation ListPacker
+ (instancetype)packerWithRoom:(size_t)room {
    ListPacker *packer = made([ListPacker new]);
    packer->_room = room;
    return packer;
}
- (BOOL)packEntryWithName:(FSFileName *)name
                 itemType:(FSItemType)itemType
                   itemID:(FSItemID)itemID
               nextCookie:(FSDirectoryCookie)nextCookie
               attributes:(FSItemAttributes *)attributes {
    if (_entries.size() == _room) {
        ++_refusals;
        return NO;
    }
    const bool agrees = attributes.fileID == itemID && attributes.type == itemType;
    _entries.push_back({std::string(static_cast<const char *>(name.data.bytes), name.data.length),
                        nextCookie, attributes != nil, attributes == nil || agrees});
    return YES;
}
@end
