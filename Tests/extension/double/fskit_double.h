// FSKit's classes as a test plays them: what fskitd would make and hand to the module, and the
// means to look at what the module answers. Everything may be told to misbehave as the real
// framework might.
#pragma once

#import <FSKit/FSKit.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// A block device over an image file.
@interface ImageResource : FSBlockDeviceResource {
  @public
    int _descriptor;
    bool _writable;
    uint64_t _size;
    std::atomic<bool> _revokedNow;     // every transfer fails with EIO
    std::atomic<uint64_t> _shortBytes; // most bytes of a transfer, without an error; 0: all
    std::atomic<bool> _stalled;        // transfers move nothing and report no error
    std::atomic<int> _foreignErrors;   // this many transfers fail outside the POSIX domain
}
+ (instancetype)resourceWithImage:(const std::filesystem::path &)image writable:(BOOL)writable;
@end

// A resource of a kind the module does not serve.
@interface OtherResource : FSResource
@end

@interface FSTaskOptions (Double)
+ (instancetype)optionsWithWords:(NSArray<NSString *> *)words;
@end

@interface FSItem (Double)
// NO: as before macOS 27.0, where items have no -tryReclaimWithBlock:.
+ (void)setHasTryReclaim:(BOOL)has;
// YES: each item is in an answer that FSKit has not seen yet, and is not reclaimed.
+ (void)setHasAnswersOnTheirWay:(BOOL)has;
// NO: an initialiser answers nil, as without memory; a volume's too.
+ (void)setCanBeMade:(BOOL)can;
@end

@interface FSContext (Double)
+ (instancetype)contextOfUser:(NSInteger)user;
@end

@interface FSFreeSpace (Double)
@property (nonatomic) uint64_t bytes;
@end

// What a result carries, whatever its class; nil and 0 for what its class does not have.
@interface FSVolumeHandlerResult (Double)
@property (nonatomic, assign) id object;
@property (nonatomic, assign) FSFileName *name;
@property (nonatomic, assign) FSItemAttributes *itemAttributes;
@property (nonatomic, assign) FSItemAttributes *directoryAttributes;
@property (nonatomic, assign) FSItemAttributes *destinationAttributes; // of a rename
@property (nonatomic, assign) FSFreeSpace *freeSpace;
@property (nonatomic) uint64_t number;
@end

@interface FSFileName (Double)
+ (instancetype)nameWithText:(const std::string &)bytes;
@end

// Completes once; further completions are counted too.
@interface RecordingTask : FSTask {
  @public
    std::atomic<int> _completions;
    std::atomic<NSInteger> _errorCode;
}
@end

@interface ByteBuffer : FSMutableFileDataBuffer {
  @public
    std::vector<char> _bytes;
}
+ (instancetype)bufferOfLength:(NSUInteger)length;
- (std::string)text:(size_t)length;
@end

// Takes a given number of entries, then reports that it is full.
@interface ListPacker : FSDirectoryEntryPacker {
  @public
    struct Entry {
        std::string name;
        FSDirectoryCookie nextCookie;
        bool hasAttributes;
        bool agrees; // type and number with the attributes
    };
    size_t _room;
    std::vector<Entry> _entries;
    int _refusals; // more than one: somebody goes on behind the end
}
+ (instancetype)packerWithRoom:(size_t)room;
@end
