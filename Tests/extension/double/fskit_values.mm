// FSKit's value classes.
#import "extension/double/value_class.h"
#import <objc/runtime.h>

#include <atomic>

using tavelin::made;

@implementation StateBox
@end

NSString *const FSKitErrorDomain = @"FSKitErrorDomain";

NSError *fs_errorForPOSIXError(int code) {
    return [NSError errorWithDomain:NSPOSIXErrorDomain code:code userInfo:nil];
}

@implementation FSEntityIdentifier
WITH_STATE
WITH_PLAIN_INIT
OBJECT(NSUUID *, uuid, Uuid)
- (instancetype)initWithUUID:(NSUUID *)uuid {
    self = [self initDouble];
    self.uuid = uuid;
    return self;
}
@end

@implementation FSVolumeIdentifier
@end

@implementation FSContainerIdentifier
- (FSVolumeIdentifier *)volumeIdentifier {
    return made([[FSVolumeIdentifier alloc] initWithUUID:self.uuid]);
}
@end

@implementation FSContainerStatus
WITH_STATE
NUMBER(FSContainerState, state, State)
OBJECT(NSError *, status, Status)
+ (FSContainerStatus *)statusWithState:(FSContainerState)state error:(NSError *)error {
    FSContainerStatus *status = made([[FSContainerStatus alloc] initDouble]);
    [status setState:state];
    [status setStatus:error];
    return status;
}
+ (FSContainerStatus *)active {
    return [self statusWithState:FSContainerStateActive error:nil];
}
+ (FSContainerStatus *)ready {
    return [self statusWithState:FSContainerStateReady error:nil];
}
+ (instancetype)notReadyWithStatus:(NSError *)errorStatus {
    return [self statusWithState:FSContainerStateNotReady error:errorStatus];
}
- (id)copyWithZone:(NSZone *)zone {
    (void)zone;
    return [self retain];
}
@end

@implementation FSProbeResult
WITH_STATE
NUMBER(FSMatchResult, result, Result)
OBJECT(NSString *, name, Name)
OBJECT(FSContainerIdentifier *, containerID, ContainerID)
+ (FSProbeResult *)notRecognizedProbeResult {
    return made([[FSProbeResult alloc] initDouble]);
}
+ (instancetype)usableProbeResultWithName:(NSString *)name
                              containerID:(FSContainerIdentifier *)containerID {
    FSProbeResult *result = made([[FSProbeResult alloc] initDouble]);
    result.result = FSMatchResultUsable;
    result.name = name;
    result.containerID = containerID;
    return result;
}
@end

@implementation FSTaskOptions
WITH_STATE
OBJECT(NSArray<NSString *> *, taskOptions, TaskOptions)
+ (instancetype)optionsWithWords:(NSArray<NSString *> *)words {
    FSTaskOptions *options = made([[FSTaskOptions alloc] initDouble]);
    [options setTaskOptions:words];
    return options;
}
@end

@implementation FSFileName
WITH_STATE
OBJECT(NSData *, data, Data)
- (instancetype)initWithBytes:(const char *)bytes length:(NSUInteger)length {
    self = [self initDouble];
    [self setData:[NSData dataWithBytes:bytes length:strnlen(bytes, length)]];
    return self;
}
- (NSString *)string {
    return made([[NSString alloc] initWithData:self.data encoding:NSUTF8StringEncoding]);
}
+ (instancetype)nameWithText:(const std::string &)bytes {
    return made([[FSFileName alloc] initWithBytes:bytes.data() length:bytes.size()]);
}
@end

static std::atomic<bool> hasTryReclaim = true;
static std::atomic<bool> hasAnswersOnTheirWay = false;
static std::atomic<bool> canBeMade = true;

@implementation FSItem
+ (void)setHasTryReclaim:(BOOL)has {
    hasTryReclaim = has;
}
+ (void)setHasAnswersOnTheirWay:(BOOL)has {
    hasAnswersOnTheirWay = has;
}
+ (void)setCanBeMade:(BOOL)can {
    canBeMade = can;
}
- (instancetype)init {
    if ((self = [super init]) && !canBeMade) {
        [self release];
        self = nil;
    }
    return self;
}
- (BOOL)respondsToSelector:(SEL)selector {
    return sel_isEqual(selector, @selector(tryReclaimWithBlock:))
               ? hasTryReclaim.load()
               : [super respondsToSelector:selector];
}
+ (BOOL)instancesRespondToSelector:(SEL)selector {
    return sel_isEqual(selector, @selector(tryReclaimWithBlock:))
               ? hasTryReclaim.load()
               : [super instancesRespondToSelector:selector];
}
- (BOOL)tryReclaimWithBlock:(void (^)(void))reclaimBlock {
    if (!hasTryReclaim) {
        [self doesNotRecognizeSelector:_cmd];
    }
    if (hasAnswersOnTheirWay) {
        return NO;
    }
    reclaimBlock();
    return YES;
}
@end

@implementation FSItemAttributes
WITH_STATE
WITH_PLAIN_INIT
- (BOOL)isValid:(FSItemAttribute)attribute {
    return (STATE.numbers["valid"] & static_cast<uint64_t>(attribute)) != 0;
}
VALID_NUMBER(uint32_t, uid, Uid, FSItemAttributeUID)
VALID_NUMBER(uint32_t, gid, Gid, FSItemAttributeGID)
ATTRIBUTE(uint32_t, mode, Mode)
ATTRIBUTE(FSItemType, type, Type)
ATTRIBUTE(uint32_t, linkCount, LinkCount)
ATTRIBUTE(uint32_t, flags, Flags)
ATTRIBUTE(uint64_t, size, Size)
ATTRIBUTE(uint64_t, allocSize, AllocSize)
ATTRIBUTE(FSItemID, fileID, FileID)
ATTRIBUTE(FSItemID, parentID, ParentID)
ATTRIBUTE(BOOL, supportsLimitedXAttrs, SupportsLimitedXAttrs)
ATTRIBUTE(BOOL, inhibitKernelOffloadedIO, InhibitKernelOffloadedIO)
TIME_ATTRIBUTE(modifyTime, ModifyTime)
TIME_ATTRIBUTE(addedTime, AddedTime)
TIME_ATTRIBUTE(changeTime, ChangeTime)
TIME_ATTRIBUTE(accessTime, AccessTime)
TIME_ATTRIBUTE(birthTime, BirthTime)
TIME_ATTRIBUTE(backupTime, BackupTime)
@end

@implementation FSItemSetAttributesRequest
NUMBER(FSItemAttribute, consumedAttributes, ConsumedAttributes)
@end

@implementation FSItemGetAttributesRequest
WITH_STATE
WITH_PLAIN_INIT
NUMBER(FSItemAttribute, wantedAttributes, WantedAttributes)
@end

@implementation FSVolume
WITH_STATE
OBJECT(FSVolumeIdentifier *, volumeID, VolumeID)
OBJECT(FSFileName *, name, Name)
- (instancetype)initWithVolumeID:(FSVolumeIdentifier *)volumeID
                      volumeName:(FSFileName *)volumeName {
    if ((self = [self initDouble]) && !canBeMade) {
        [self release];
        return nil;
    }
    [self setVolumeID:volumeID];
    self.name = volumeName;
    return self;
}
@end

@implementation FSUnaryFileSystem
WITH_STATE
WITH_PLAIN_INIT
OBJECT(FSContainerStatus *, containerStatus, ContainerStatus)
@end

@implementation FSVolumeSupportedCapabilities
WITH_STATE
WITH_PLAIN_INIT
NUMBER(BOOL, supportsPersistentObjectIDs, SupportsPersistentObjectIDs)
NUMBER(BOOL, supportsSymbolicLinks, SupportsSymbolicLinks)
NUMBER(BOOL, supportsHardLinks, SupportsHardLinks)
NUMBER(BOOL, supportsSparseFiles, SupportsSparseFiles)
NUMBER(BOOL, supports2TBFiles, Supports2TBFiles)
NUMBER(BOOL, supportsHiddenFiles, SupportsHiddenFiles)
NUMBER(BOOL, supports64BitObjectIDs, Supports64BitObjectIDs)
NUMBER(BOOL, supportsFastStatFS, SupportsFastStatFS)
NUMBER(BOOL, doesNotSupportImmutableFiles, DoesNotSupportImmutableFiles)
NUMBER(BOOL, doesNotSupportSettingFilePermissions, DoesNotSupportSettingFilePermissions)
NUMBER(FSVolumeCaseFormat, caseFormat, CaseFormat)
@end

@implementation FSStatFSResult
WITH_STATE
OBJECT(NSString *, fileSystemTypeName, FileSystemTypeName)
- (instancetype)initWithFileSystemTypeName:(NSString *)fileSystemTypeName {
    self = [self initDouble];
    [self setFileSystemTypeName:fileSystemTypeName];
    return self;
}
NUMBER(NSInteger, blockSize, BlockSize)
NUMBER(NSInteger, ioSize, IoSize)
NUMBER(uint64_t, totalBlocks, TotalBlocks)
NUMBER(uint64_t, availableBlocks, AvailableBlocks)
NUMBER(uint64_t, freeBlocks, FreeBlocks)
NUMBER(uint64_t, usedBlocks, UsedBlocks)
NUMBER(uint64_t, totalBytes, TotalBytes)
NUMBER(uint64_t, availableBytes, AvailableBytes)
NUMBER(uint64_t, freeBytes, FreeBytes)
NUMBER(uint64_t, usedBytes, UsedBytes)
NUMBER(uint64_t, totalFiles, TotalFiles)
NUMBER(uint64_t, freeFiles, FreeFiles)
NUMBER(NSInteger, fileSystemSubType, FileSystemSubType)
@end
