// The part of FSKit that Tavelin uses, declared by hand so that the binding compiles where there
// is no macOS SDK. The names, types and availability are those of the macOS 15.4, 26.0, 26.4 and
// 27.0 SDKs; a member that Tavelin does not touch is left out. On a Mac the system's own header is
// found instead of this one.
#pragma once

#import <Foundation/Foundation.h>

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

// The release whose SDK these declarations stand for. What came later is left out, as it is there.
#ifndef __MAC_OS_X_VERSION_MAX_ALLOWED
#define __MAC_OS_X_VERSION_MAX_ALLOWED 270000
#endif
#ifndef API_AVAILABLE
#define API_AVAILABLE(...)
#endif
#define FSKIT_V1 API_AVAILABLE(macos(15.4))
#define FSKIT_V2 API_AVAILABLE(macos(26.0))
#define FSKIT_V2_4 API_AVAILABLE(macos(26.4))
#define FSKIT_V3 API_AVAILABLE(macos(27.0))

// Where the ABI lays objects out at compile time, classes that are subclassed or implemented
// elsewhere need a place for their state: one object, used by the double that stands in for FSKit.
#ifdef __APPLE__
#define FSKIT_STORAGE
#else
typedef unsigned long long UInt64;
#define FSKIT_STORAGE                                                                              \
    { id _storage; }
#endif

NS_ASSUME_NONNULL_BEGIN

@class FSBlockDeviceResource, FSVolume;

// Errors

#ifdef __cplusplus
extern "C" {
#endif
extern NSError *fs_errorForPOSIXError(int code) FSKIT_V1;
extern NSString *const FSKitErrorDomain FSKIT_V1;
#ifdef __cplusplus
}
#endif

typedef NS_ENUM(NSInteger, FSErrorCode) {
    FSErrorModuleLoadFailed = 4500,
    FSErrorResourceUnrecognized = 4501,
    FSErrorResourceDamaged = 4502,
    FSErrorResourceUnusable = 4503,
    FSErrorInvalidDirectoryCookie = 4506,
} FSKIT_V1;

// Identifiers, container state

FSKIT_V1
@interface FSEntityIdentifier : NSObject
FSKIT_STORAGE
- (instancetype)initWithUUID:(NSUUID *)uuid;
@property (copy) NSUUID *uuid;
@end

FSKIT_V1
@interface FSVolumeIdentifier : FSEntityIdentifier
@end

FSKIT_V1
@interface FSContainerIdentifier : FSEntityIdentifier
@property (readonly, copy) FSVolumeIdentifier *volumeIdentifier;
@end

typedef NS_ENUM(NSInteger, FSContainerState) {
    FSContainerStateNotReady = 0,
    FSContainerStateBlocked = 1,
    FSContainerStateReady = 2,
    FSContainerStateActive = 3,
} FSKIT_V1;

@interface FSContainerStatus : NSObject <NSCopying>
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly) FSContainerState state;
@property (readonly, copy, nullable) NSError *status;
+ (FSContainerStatus *)active;
+ (FSContainerStatus *)ready;
+ (instancetype)notReadyWithStatus:(NSError *)errorStatus;
@end

// Resources

FSKIT_V1
@interface FSResource : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (nonatomic, readonly, getter=isRevoked) BOOL revoked;
@end

FSKIT_V1
@interface FSBlockDeviceResource : FSResource
@property (readonly, copy) NSString *BSDName;
@property (readonly, getter=isWritable) BOOL writable;
@property (readonly) uint64_t blockSize;
@property (readonly) uint64_t blockCount;
@property (readonly) uint64_t physicalBlockSize;
- (size_t)readInto:(void *)buffer
        startingAt:(off_t)offset
            length:(size_t)length
             error:(NSError *_Nullable *_Nullable)error;
- (size_t)writeFrom:(void *)buffer
         startingAt:(off_t)offset
             length:(size_t)length
              error:(NSError *_Nullable *_Nullable)error;
- (BOOL)metadataReadInto:(void *)buffer
              startingAt:(off_t)offset
                  length:(size_t)length
                   error:(NSError *_Nullable *_Nullable)error;
- (BOOL)delayedMetadataWriteFrom:(void *)buffer
                      startingAt:(off_t)offset
                          length:(size_t)length
                           error:(NSError *_Nullable *_Nullable)error;
- (BOOL)metadataFlushWithError:(NSError *_Nullable *_Nullable)error;
@end

typedef NS_ENUM(NSInteger, FSMatchResult) {
    FSMatchResultNotRecognized = 0,
    FSMatchResultRecognized = 1,
    FSMatchResultUsableButLimited = 2,
    FSMatchResultUsable = 3,
} FSKIT_V1;

FSKIT_V1
@interface FSProbeResult : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly) FSMatchResult result;
@property (readonly, copy, nullable) NSString *name;
@property (readonly, nullable) FSContainerIdentifier *containerID;
+ (FSProbeResult *)notRecognizedProbeResult;
+ (instancetype)usableProbeResultWithName:(NSString *)name
                              containerID:(FSContainerIdentifier *)containerID;
@end

// Tasks

FSKIT_V1
@interface FSTask : NSObject
FSKIT_STORAGE
- (void)logMessage:(NSString *)message;
- (void)didCompleteWithError:(NSError *_Nullable)error;
@end

FSKIT_V1
@interface FSTaskOptions : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly, copy) NSArray<NSString *> *taskOptions;
@end

FSKIT_V1
@protocol FSManageableResourceMaintenanceOperations <NSObject>
- (NSProgress *_Nullable)startCheckWithTask:(FSTask *)task
                                    options:(FSTaskOptions *)options
                                      error:(NSError *_Nullable *_Nullable)error;
- (NSProgress *_Nullable)startFormatWithTask:(FSTask *)task
                                     options:(FSTaskOptions *)options
                                       error:(NSError *_Nullable *_Nullable)error;
@end

// The module

FSKIT_V1
@protocol FSFileSystemBase <NSObject>
@property (copy) FSContainerStatus *containerStatus;
@end

FSKIT_V1
@interface FSUnaryFileSystem : NSObject <FSFileSystemBase>
FSKIT_STORAGE
@end

FSKIT_V1
@protocol FSUnaryFileSystemOperations <NSObject>
- (void)probeResource:(FSResource *)resource
         replyHandler:(void (^)(FSProbeResult *_Nullable result, NSError *_Nullable error))reply;
- (void)loadResource:(FSResource *)resource
             options:(FSTaskOptions *)options
        replyHandler:(void (^)(FSVolume *_Nullable volume, NSError *_Nullable error))reply;
- (void)unloadResource:(FSResource *)resource
               options:(FSTaskOptions *)options
          replyHandler:(void (^)(NSError *_Nullable error))reply;
@optional
- (void)didFinishLoading;
@end

// Names, items, attributes

FSKIT_V1
@interface FSFileName : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly) NSData *data;
@property (readonly, nullable) NSString *string;
- (instancetype)initWithBytes:(const char *)bytes length:(NSUInteger)length;
@end

FSKIT_V1
@interface FSItem : NSObject
FSKIT_STORAGE
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000
- (BOOL)tryReclaimWithBlock:(void (^)(void))reclaimBlock FSKIT_V3;
#endif
@end

typedef NS_ENUM(NSInteger, FSItemType) {
    FSItemTypeUnknown = 0,
    FSItemTypeFile = 1,
    FSItemTypeDirectory = 2,
    FSItemTypeSymlink = 3,
} FSKIT_V1;

typedef NS_ENUM(UInt64, FSItemID) {
    FSItemIDInvalid = 0,
    FSItemIDParentOfRoot = 1,
    FSItemIDRootDirectory = 2,
} FSKIT_V1;

typedef NS_OPTIONS(NSInteger, FSItemAttribute) {
    FSItemAttributeType = 1 << 0,
    FSItemAttributeMode = 1 << 1,
    FSItemAttributeLinkCount = 1 << 2,
    FSItemAttributeUID = 1 << 3,
    FSItemAttributeGID = 1 << 4,
    FSItemAttributeFlags = 1 << 5,
    FSItemAttributeSize = 1 << 6,
    FSItemAttributeAllocSize = 1 << 7,
    FSItemAttributeFileID = 1 << 8,
    FSItemAttributeParentID = 1 << 9,
    FSItemAttributeAccessTime = 1 << 10,
    FSItemAttributeModifyTime = 1 << 11,
    FSItemAttributeChangeTime = 1 << 12,
    FSItemAttributeBirthTime = 1 << 13,
    FSItemAttributeBackupTime = 1 << 14,
    FSItemAttributeAddedTime = 1 << 15,
    FSItemAttributeSupportsLimitedXAttrs = 1 << 16,
    FSItemAttributeInhibitKernelOffloadedIO = 1 << 17,
} FSKIT_V1;

FSKIT_V1
@interface FSItemAttributes : NSObject
FSKIT_STORAGE
- (BOOL)isValid:(FSItemAttribute)attribute;
@property (nonatomic) uint32_t uid;
@property (nonatomic) uint32_t gid;
@property (nonatomic) uint32_t mode;
@property (nonatomic) FSItemType type;
@property (nonatomic) uint32_t linkCount;
@property (nonatomic) uint32_t flags;
@property (nonatomic) uint64_t size;
@property (nonatomic) uint64_t allocSize;
@property (nonatomic) FSItemID fileID;
@property (nonatomic) FSItemID parentID;
@property (nonatomic) BOOL supportsLimitedXAttrs;
@property (nonatomic) BOOL inhibitKernelOffloadedIO;
@property (nonatomic) struct timespec modifyTime;
@property (nonatomic) struct timespec addedTime;
@property (nonatomic) struct timespec changeTime;
@property (nonatomic) struct timespec accessTime;
@property (nonatomic) struct timespec birthTime;
@property (nonatomic) struct timespec backupTime;
@end

FSKIT_V1
@interface FSItemSetAttributesRequest : FSItemAttributes
@property (nonatomic) FSItemAttribute consumedAttributes;
@end

FSKIT_V1
@interface FSItemGetAttributesRequest : NSObject
FSKIT_STORAGE
@property (nonatomic) FSItemAttribute wantedAttributes;
@end

FSKIT_V1
@interface FSMutableFileDataBuffer : NSObject
FSKIT_STORAGE
- (instancetype)init NS_UNAVAILABLE;
@property (readonly) NSUInteger length;
- (void *)mutableBytes;
@end

// For the host application

FSKIT_V1
@interface FSModuleIdentity : NSObject
@property (readonly) NSString *bundleIdentifier;
@property (nonatomic, readonly, getter=isEnabled) BOOL enabled;
@end

FSKIT_V1
@interface FSClient : NSObject
- (instancetype)init NS_UNAVAILABLE;
+ (FSClient *)sharedInstance;
- (void)fetchInstalledExtensionsWithCompletionHandler:
    (void (^)(NSArray<FSModuleIdentity *> *_Nullable, NSError *_Nullable))completionHandler;
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000
- (BOOL)openFileSystemExtensionsSettings FSKIT_V3;
#endif
@end

NS_ASSUME_NONNULL_END

#import <FSKit/FSVolume.h>
#import <FSKit/FSVolumeHandler.h>
