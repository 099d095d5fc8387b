// The handler protocols of macOS 27.0, which answer one object for each request; see FSKit.h, which
// brings this in.
#pragma once

#import <FSKit/FSVolume.h>

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000

NS_ASSUME_NONNULL_BEGIN

FSKIT_V3
@interface FSContext : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly) NSInteger realUserID;
@property (readonly) NSInteger effectiveUserID;
@end

FSKIT_V3
@interface FSFreeSpace : NSObject
FSKIT_STORAGE
- (void)populateWithBytes:(uint64_t)bytes;
@end

// What a request answers. The initialisers answer nil when something that is required is missing:
// of the attributes, all of requestedAttributes.
FSKIT_V3
@interface FSVolumeHandlerResult : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
+ (FSItemGetAttributesRequest *)requestedAttributes;
@end

FSKIT_V3
@interface FSActivateResult : FSVolumeHandlerResult
- (nullable instancetype)initWithRootItem:(FSItem *)rootItem;
@end

FSKIT_V3
@interface FSLookupItemResult : FSVolumeHandlerResult
- (nullable instancetype)initWithFoundItem:(FSItem *)foundItem
                                  itemName:(FSFileName *)itemName
                            itemAttributes:(FSItemAttributes *)itemAttributes;
@end

FSKIT_V3
@interface FSCreateItemResult : FSVolumeHandlerResult
- (nullable instancetype)initWithNewItem:(FSItem *)newItem
                             newItemName:(FSFileName *)newItemName
                       newItemAttributes:(FSItemAttributes *)newItemAttributes
                     directoryAttributes:(FSItemAttributes *)directoryAttributes
                               freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSCreateSymlinkResult : FSCreateItemResult
@end

FSKIT_V3
@interface FSCreateLinkResult : FSVolumeHandlerResult
- (nullable instancetype)initWithLinkName:(FSFileName *)linkName
                           linkAttributes:(FSItemAttributes *)linkAttributes
                      directoryAttributes:(FSItemAttributes *)directoryAttributes
                                freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSRenameItemResult : FSVolumeHandlerResult
- (nullable instancetype)initWithNewName:(FSFileName *)newName
                   renamedItemAttributes:(FSItemAttributes *)renamedItemAttributes
               sourceDirectoryAttributes:(FSItemAttributes *)sourceDirectoryAttributes
          destinationDirectoryAttributes:(FSItemAttributes *)destinationDirectoryAttributes
                      overItemAttributes:(FSItemAttributes *_Nullable)overItemAttributes
                               freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSRemoveItemResult : FSVolumeHandlerResult
- (nullable instancetype)initWithItemAttributes:(FSItemAttributes *)itemAttributes
                            directoryAttributes:(FSItemAttributes *)directoryAttributes
                                      freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSGetAttributesResult : FSVolumeHandlerResult
- (nullable instancetype)initWithAttributes:(FSItemAttributes *)attributes;
@end

FSKIT_V3
@interface FSSetAttributesResult : FSVolumeHandlerResult
- (nullable instancetype)initWithAttributes:(FSItemAttributes *)attributes
                                  freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSEnumerateDirectoryResult : FSVolumeHandlerResult
- (nullable instancetype)initWithVerifier:(FSDirectoryVerifier)verifier;
@end

FSKIT_V3
@interface FSReadSymlinkResult : FSVolumeHandlerResult
- (nullable instancetype)initWithContents:(FSFileName *)contents
                        symlinkAttributes:(FSItemAttributes *)symlinkAttributes;
@end

FSKIT_V3
@interface FSReadFileResult : FSVolumeHandlerResult
- (nullable instancetype)initWithBytesRead:(size_t)bytesRead
                            itemAttributes:(FSItemAttributes *)itemAttributes;
@end

FSKIT_V3
@interface FSWriteFileResult : FSVolumeHandlerResult
- (nullable instancetype)initWithBytesWritten:(size_t)bytesWritten
                               itemAttributes:(FSItemAttributes *)itemAttributes
                                    freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSGetXattrResult : FSVolumeHandlerResult
- (nullable instancetype)initWithXattrValue:(NSData *)xattrValue;
@end

FSKIT_V3
@interface FSSetXattrResult : FSVolumeHandlerResult
- (nullable instancetype)initWithFreeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSListXattrsResult : FSVolumeHandlerResult
- (nullable instancetype)initWithXattrNames:(NSArray<FSFileName *> *)xattrNames;
@end

FSKIT_V3
@interface FSVolumeRenameResult : FSVolumeHandlerResult
- (nullable instancetype)initWithNewName:(FSFileName *)newName;
@end

FSKIT_V3
@interface FSPreallocateResult : FSVolumeHandlerResult
- (nullable instancetype)initWithBytesAllocated:(size_t)bytesAllocated
                                 itemAttributes:(FSItemAttributes *)itemAttributes
                                      freeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

FSKIT_V3
@interface FSSeekRegionResult : FSVolumeHandlerResult
- (nullable instancetype)initWithReturnedOffset:(off_t)returnedOffset;
@end

FSKIT_V3
@interface FSDeactivateItemResult : FSVolumeHandlerResult
- (nullable instancetype)initWithFreeSpace:(FSFreeSpace *_Nullable)freeSpace;
@end

typedef NS_ENUM(NSUInteger, FSSeekRegion) {
    FSSeekRegionHole = 1,
    FSSeekRegionData = 2,
} FSKIT_V3;

FSKIT_V3
@protocol FSVolumeHandler <FSVolumeCommonOperations, FSVolumePathConfOperations>
- (void)activateVolumeWithOptions:(FSTaskOptions *)options
                     replyHandler:(void (^)(FSActivateResult *_Nullable result,
                                            NSError *_Nullable error))reply;
- (void)deactivateVolumeWithOptions:(FSDeactivateOptions)options
                       replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)getAttributes:(FSItemGetAttributesRequest *)desiredAttributes
               ofItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:
             (void (^)(FSGetAttributesResult *_Nullable result, NSError *_Nullable error))reply;
- (void)setAttributes:(FSItemSetAttributesRequest *)newAttributes
               onItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:
             (void (^)(FSSetAttributesResult *_Nullable result, NSError *_Nullable error))reply;
- (void)lookupItemNamed:(FSFileName *)name
            inDirectory:(FSItem *)directory
                context:(FSContext *)context
           replyHandler:
               (void (^)(FSLookupItemResult *_Nullable result, NSError *_Nullable error))reply;
- (void)readSymbolicLink:(FSItem *)item
                 context:(FSContext *)context
            replyHandler:
                (void (^)(FSReadSymlinkResult *_Nullable result, NSError *_Nullable error))reply;
- (void)createItemNamed:(FSFileName *)name
                   type:(FSItemType)type
            inDirectory:(FSItem *)directory
             attributes:(FSItemSetAttributesRequest *)newAttributes
                context:(FSContext *)context
           replyHandler:
               (void (^)(FSCreateItemResult *_Nullable result, NSError *_Nullable error))reply;
- (void)createSymbolicLinkNamed:(FSFileName *)name
                    inDirectory:(FSItem *)directory
                     attributes:(FSItemSetAttributesRequest *)newAttributes
                   linkContents:(FSFileName *)contents
                        context:(FSContext *)context
                   replyHandler:(void (^)(FSCreateSymlinkResult *_Nullable result,
                                          NSError *_Nullable error))reply;
- (void)createLinkToItem:(FSItem *)item
                   named:(FSFileName *)name
             inDirectory:(FSItem *)directory
                 context:(FSContext *)context
            replyHandler:
                (void (^)(FSCreateLinkResult *_Nullable result, NSError *_Nullable error))reply;
- (void)removeItem:(FSItem *)item
             named:(FSFileName *)name
     fromDirectory:(FSItem *)directory
           context:(FSContext *)context
      replyHandler:(void (^)(FSRemoveItemResult *_Nullable result, NSError *_Nullable error))reply;
- (void)renameItem:(FSItem *)item
       inDirectory:(FSItem *)sourceDirectory
             named:(FSFileName *)sourceName
         toNewName:(FSFileName *)destinationName
       inDirectory:(FSItem *)destinationDirectory
          overItem:(FSItem *_Nullable)overItem
           context:(FSContext *)context
      replyHandler:(void (^)(FSRenameItemResult *_Nullable result, NSError *_Nullable error))reply;
- (void)enumerateDirectory:(FSItem *)directory
          startingAtCookie:(FSDirectoryCookie)cookie
                  verifier:(FSDirectoryVerifier)verifier
       providingAttributes:(FSItemGetAttributesRequest *_Nullable)attributes
               usingPacker:(FSDirectoryEntryPacker *)packer
                   context:(FSContext *)context
              replyHandler:(void (^)(FSEnumerateDirectoryResult *_Nullable result,
                                     NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeReadWriteHandler <NSObject>
- (void)readFromFile:(FSItem *)item
              offset:(off_t)offset
              length:(size_t)length
          intoBuffer:(FSMutableFileDataBuffer *)buffer
        replyHandler:(void (^)(FSReadFileResult *_Nullable result, NSError *_Nullable error))reply;
- (void)writeContents:(NSData *)contents
               toFile:(FSItem *)item
             atOffset:(off_t)offset
         replyHandler:
             (void (^)(FSWriteFileResult *_Nullable result, NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumePreallocateHandler <NSObject>
- (void)preallocateSpaceForItem:(FSItem *)item
                       atOffset:(off_t)offset
                         length:(size_t)length
                          flags:(FSPreallocateFlags)flags
                        context:(FSContext *)context
                   replyHandler:(void (^)(FSPreallocateResult *_Nullable result,
                                          NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeSeekRegionHandler <NSObject>
- (void)seekWithinItem:(FSItem *)item
            fromOffset:(off_t)offset
                region:(FSSeekRegion)region
               context:(FSContext *)context
          replyHandler:
              (void (^)(FSSeekRegionResult *_Nullable result, NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeOpenCloseHandler <NSObject>
@optional
@property (readonly, getter=isOpenCloseInhibited) BOOL openCloseInhibited;
@required
- (void)openItem:(FSItem *)item
       withModes:(FSVolumeOpenModes)modes
         context:(FSContext *)context
    replyHandler:(void (^)(NSError *_Nullable error))reply;
- (void)closeItem:(FSItem *)item
     keepingModes:(FSVolumeOpenModes)modes
          context:(FSContext *)context
     replyHandler:(void (^)(NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeItemDeactivationHandler <NSObject>
@property (readonly) FSItemDeactivationOptions itemDeactivationPolicy;
- (void)deactivateItem:(FSItem *)item
               context:(FSContext *)context
          replyHandler:
              (void (^)(FSDeactivateItemResult *_Nullable result, NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeXattrHandler <NSObject>
- (void)getXattrNamed:(FSFileName *)name
               ofItem:(FSItem *)item
              context:(FSContext *)context
         replyHandler:(void (^)(FSGetXattrResult *_Nullable result, NSError *_Nullable error))reply;
- (void)setXattrNamed:(FSFileName *)name
               toData:(NSData *_Nullable)value
               onItem:(FSItem *)item
               policy:(FSSetXattrPolicy)policy
              context:(FSContext *)context
         replyHandler:(void (^)(FSSetXattrResult *_Nullable result, NSError *_Nullable error))reply;
- (void)listXattrsOfItem:(FSItem *)item
                 context:(FSContext *)context
            replyHandler:
                (void (^)(FSListXattrsResult *_Nullable result, NSError *_Nullable error))reply;
@end

FSKIT_V3
@protocol FSVolumeRenameHandler <NSObject>
- (void)setVolumeName:(FSFileName *)name
              context:(FSContext *)context
         replyHandler:
             (void (^)(FSVolumeRenameResult *_Nullable result, NSError *_Nullable error))reply;
@end

NS_ASSUME_NONNULL_END

#endif
