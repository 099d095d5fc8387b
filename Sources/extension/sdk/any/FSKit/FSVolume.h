// The volume and its requests; see FSKit.h, which brings this in.
#pragma once

#import <FSKit/FSKit.h>

NS_ASSUME_NONNULL_BEGIN

typedef uint64_t FSDirectoryCookie;
typedef uint64_t FSDirectoryVerifier;

FSKIT_V1
@interface FSVolume : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (strong, readonly) FSVolumeIdentifier *volumeID;
@property (copy) FSFileName *name;
- (instancetype)initWithVolumeID:(FSVolumeIdentifier *)volumeID
                      volumeName:(FSFileName *)volumeName NS_DESIGNATED_INITIALIZER;
@end

FSKIT_V1
@interface FSDirectoryEntryPacker : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
- (BOOL)packEntryWithName:(FSFileName *)name
                 itemType:(FSItemType)itemType
                   itemID:(FSItemID)itemID
               nextCookie:(FSDirectoryCookie)nextCookie
               attributes:(FSItemAttributes *_Nullable)attributes;
@end

typedef NS_ENUM(NSInteger, FSVolumeCaseFormat) {
    FSVolumeCaseFormatSensitive = 0,
    FSVolumeCaseFormatInsensitive = 1,
    FSVolumeCaseFormatInsensitiveCasePreserving = 2,
} FSKIT_V1;

FSKIT_V1
@interface FSVolumeSupportedCapabilities : NSObject
FSKIT_STORAGE
@property (nonatomic) BOOL supportsPersistentObjectIDs;
@property (nonatomic) BOOL supportsSymbolicLinks;
@property (nonatomic) BOOL supportsHardLinks;
@property (nonatomic) BOOL supportsSparseFiles;
@property (nonatomic) BOOL supports2TBFiles;
@property (nonatomic) BOOL supportsHiddenFiles;
@property (nonatomic) BOOL supports64BitObjectIDs;
@property (nonatomic) BOOL supportsFastStatFS;
@property (nonatomic) BOOL doesNotSupportImmutableFiles;
@property (nonatomic) BOOL doesNotSupportSettingFilePermissions;
@property (nonatomic) FSVolumeCaseFormat caseFormat;
@end

FSKIT_V1
@interface FSStatFSResult : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
- (instancetype)initWithFileSystemTypeName:(NSString *)fileSystemTypeName;
@property NSInteger blockSize;
@property NSInteger ioSize;
@property uint64_t totalBlocks;
@property uint64_t availableBlocks;
@property uint64_t freeBlocks;
@property uint64_t usedBlocks;
@property uint64_t totalBytes;
@property uint64_t availableBytes;
@property uint64_t freeBytes;
@property uint64_t usedBytes;
@property uint64_t totalFiles;
@property uint64_t freeFiles;
@property NSInteger fileSystemSubType;
@property (readonly, copy) NSString *fileSystemTypeName;
@end

typedef NS_OPTIONS(NSInteger, FSDeactivateOptions) {
    FSDeactivateOptionsForce = 1 << 0,
} FSKIT_V1;

typedef NS_ENUM(NSInteger, FSSyncFlags) {
    FSSyncFlagsWait = 1,
    FSSyncFlagsNoWait = 2,
    FSSyncFlagsDWait = 4,
} FSKIT_V1;

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 260400
typedef NS_OPTIONS(NSUInteger, FSMountOptions) {
    FSMountOptionsReadOnly = 1 << 0,
} FSKIT_V2_4;
#endif

typedef NS_OPTIONS(NSUInteger, FSVolumeOpenModes) {
    FSVolumeOpenModesRead = 1 << 0,
    FSVolumeOpenModesWrite = 1 << 1,
} FSKIT_V1;

typedef NS_ENUM(NSUInteger, FSSetXattrPolicy) {
    FSSetXattrPolicyAlwaysSet = 0,
    FSSetXattrPolicyMustCreate = 1,
    FSSetXattrPolicyMustReplace = 2,
    FSSetXattrPolicyDelete = 3,
} FSKIT_V1;

FSKIT_V1
@protocol FSVolumePathConfOperations <NSObject>
@property (readonly) NSInteger maximumLinkCount;
@property (readonly) NSInteger maximumNameLength;
@property (readonly) BOOL restrictsOwnershipChanges;
@property (readonly) BOOL truncatesLongNames;
@optional
@property (readonly) NSInteger maximumXattrSize;
@property (readonly) uint64_t maximumFileSize;
@end

// What both generations of the volume's protocols have in common. Before the SDK of macOS 27.0
// these are members of FSVolumeOperations, which is the same to who adopts it.
FSKIT_V1
@protocol FSVolumeCommonOperations <NSObject>
@property (readonly, nonatomic) FSVolumeSupportedCapabilities *supportedVolumeCapabilities;
@property (readonly, nonatomic) FSStatFSResult *volumeStatistics;
- (void)mountWithOptions:(FSTaskOptions *)options
            replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)unmountWithReplyHandler:(void (^)(void))reply;
- (void)synchronizeWithFlags:(FSSyncFlags)flags
                replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)reclaimItem:(FSItem *)item replyHandler:(void (^)(NSError *_Nullable error))reply;
@optional
@property (readonly) BOOL enableOpenUnlinkEmulation FSKIT_V2;
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 260400
@property (readonly) FSMountOptions requestedMountOptions FSKIT_V2_4;
#endif
@end

FSKIT_V1
@protocol FSVolumeOperations <FSVolumeCommonOperations, FSVolumePathConfOperations>
- (void)activateWithOptions:(FSTaskOptions *)options
               replyHandler:(void (^)(FSItem *_Nullable rootItem, NSError *_Nullable error))reply;
- (void)deactivateWithOptions:(FSDeactivateOptions)options
                 replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
         replyHandler:
             (void (^)(FSItemAttributes *_Nullable attributes, NSError *_Nullable error))reply;
- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
         replyHandler:
             (void (^)(FSItemAttributes *_Nullable attributes, NSError *_Nullable error))reply;
- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
           replyHandler:(void (^)(FSItem *_Nullable item, FSFileName *_Nullable itemName,
                                  NSError *_Nullable error))reply;
- (void)readSymbolicLink:(FSItem *)item
            replyHandler:(void (^)(FSFileName *_Nullable contents, NSError *_Nullable error))reply;
- (void)createItemNamed:(FSFileName *)name
                   type:(FSItemType)type
            inDirectory:(FSItem *)directory
             attributes:(FSItemSetAttributesRequest *)newAttributes
           replyHandler:(void (^)(FSItem *_Nullable newItem, FSFileName *_Nullable newItemName,
                                  NSError *_Nullable error))reply;
- (void)createSymbolicLinkNamed:(FSFileName *)name
                    inDirectory:(FSItem *)directory
                     attributes:(FSItemSetAttributesRequest *)newAttributes
                   linkContents:(FSFileName *)contents
                   replyHandler:(void (^)(FSItem *_Nullable newItem,
                                          FSFileName *_Nullable newItemName,
                                          NSError *_Nullable error))reply;
- (void)createLinkToItem:(FSItem *)item
                   named:(FSFileName *)name
             inDirectory:(FSItem *)directory
            replyHandler:(void (^)(FSFileName *_Nullable linkName, NSError *_Nullable error))reply;
- (void)removeItem:(FSItem *)item
             named:(FSFileName *)name
     fromDirectory:(FSItem *)directory
      replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)renameItem:(FSItem *)item
       inDirectory:(FSItem *)sourceDirectory
             named:(FSFileName *)sourceName
         toNewName:(FSFileName *)destinationName
       inDirectory:(FSItem *)destinationDirectory
          overItem:(FSItem *_Nullable)overItem
      replyHandler:(void (^)(FSFileName *_Nullable newName, NSError *_Nullable error))reply;
- (void)enumerateDirectory:(FSItem *)directory
          startingAtCookie:(FSDirectoryCookie)cookie
                  verifier:(FSDirectoryVerifier)verifier
       providingAttributes:(FSItemGetAttributesRequest *_Nullable)attributes
               usingPacker:(FSDirectoryEntryPacker *)packer
              replyHandler:
                  (void (^)(FSDirectoryVerifier currentVerifier, NSError *_Nullable error))reply;
@end

FSKIT_V1
@protocol FSVolumeReadWriteOperations <NSObject>
- (void)readFromFile:(FSItem *)item
              offset:(off_t)offset
              length:(size_t)length
          intoBuffer:(FSMutableFileDataBuffer *)buffer
        replyHandler:(void (^)(size_t actuallyRead, NSError *_Nullable error))reply;
- (void)writeContents:(NSData *)contents
               toFile:(FSItem *)item
             atOffset:(off_t)offset
         replyHandler:(void (^)(size_t actuallyWritten, NSError *_Nullable error))reply;
@end

typedef NS_OPTIONS(NSUInteger, FSPreallocateFlags) {
    FSPreallocateFlagsContiguous = 0x2,
    FSPreallocateFlagsAll = 0x4,
    FSPreallocateFlagsPersist = 0x8,
    FSPreallocateFlagsFromEOF = 0x10,
} FSKIT_V1;

FSKIT_V1
@protocol FSVolumePreallocateOperations <NSObject>
- (void)preallocateSpaceForItem:(FSItem *)item
                       atOffset:(off_t)offset
                         length:(size_t)length
                          flags:(FSPreallocateFlags)flags
                   replyHandler:(void (^)(size_t bytesAllocated, NSError *_Nullable error))reply;
@end

FSKIT_V1
@protocol FSVolumeOpenCloseOperations <NSObject>
@optional
@property (getter=isOpenCloseInhibited) BOOL openCloseInhibited;
@required
- (void)openItem:(FSItem *)item
       withModes:(FSVolumeOpenModes)modes
    replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)closeItem:(FSItem *)item
     keepingModes:(FSVolumeOpenModes)modes
     replyHandler:(void (^)(NSError *_Nullable error))reply;
@end

typedef NS_OPTIONS(NSUInteger, FSItemDeactivationOptions) {
    FSItemDeactivationForRemovedItems = 1 << 0,
    FSItemDeactivationForPreallocatedItems = 1 << 1,
} FSKIT_V1;

FSKIT_V1
@protocol FSVolumeItemDeactivation <NSObject>
@property (readonly) FSItemDeactivationOptions itemDeactivationPolicy;
- (void)deactivateItem:(FSItem *)item replyHandler:(void (^)(NSError *_Nullable error))reply;
@end

FSKIT_V1
@protocol FSVolumeXattrOperations <NSObject>
@required
- (void)getXattrNamed:(FSFileName *)name
               ofItem:(FSItem *)item
         replyHandler:(void (^)(NSData *_Nullable value, NSError *_Nullable error))reply;
- (void)setXattrNamed:(FSFileName *)name
               toData:(NSData *_Nullable)value
               onItem:(FSItem *)item
               policy:(FSSetXattrPolicy)policy
         replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)listXattrsOfItem:(FSItem *)item
            replyHandler:
                (void (^)(NSArray<FSFileName *> *_Nullable value, NSError *_Nullable error))reply;
@end

FSKIT_V1
@protocol FSVolumeRenameOperations <NSObject>
- (void)setVolumeName:(FSFileName *)name
         replyHandler:(void (^)(FSFileName *_Nullable newName, NSError *_Nullable error))reply;
@end

NS_ASSUME_NONNULL_END
