/// What the two volume classes have in common.
///
/// FSKit has two generations of requests with partly the same selectors, so no class can serve
/// both: TavelinVolume serves macOS 15.4 to 26, TavelinHandlerVolume macOS 27.0 and later. Each
/// passes requests on to the front end's volume and the answers back; requests may come from any
/// thread at any time, as for that volume.
#pragma once

#import <FSKit/FSKit.h>

#include "extension/handed_items.hpp"
#include "extension/memory.hpp"
#include "fskit/orphaning_requests.hpp"
#include "fskit/tavelin_volume.hpp"

#include <memory>

@class TavelinFileSystem;

@interface TavelinServedVolume : FSVolume <FSVolumePathConfOperations> {
  @protected
    /* What requests go to. Shared with the file system, which closes it at the unload. */
    std::shared_ptr<tavelin::TavelinVolume> _volume;
    /* Requests about names; refers to _volume and is made after it. */
    std::unique_ptr<tavelin::OrphaningRequests> _names;
    /* The items that FSKit holds; refers to _volume and is made after it. */
    std::unique_ptr<tavelin::HandedItems> _handed;

  @private
    /* Until a deactivation that succeeds: the file system keeps this volume in turn. */
    tavelin::Strong<TavelinFileSystem *> _fileSystem;
}
/// `fileSystem` is told when the volume becomes active and when it is closed.
- (instancetype)initWithVolume:(std::shared_ptr<tavelin::TavelinVolume>)volume
                    fileSystem:(TavelinFileSystem *)fileSystem;
/// Whether requests go to this volume.
- (BOOL)serves:(const tavelin::TavelinVolume &)volume;
/// How many items FSKit holds.
@property (nonatomic, readonly) NSUInteger handedItemCount;

/// The root directory's item, handed out, of the volume that is active then.
- (tavelin::Outcome<FSItem *>)activeRoot:(FSTaskOptions *)options;
/// The volume is closed then, and only another load opens it again.
- (tavelin::Outcome<void>)deactivated:(FSDeactivateOptions)options;

/* Requests that both generations have. */
@property (readonly, nonatomic) FSVolumeSupportedCapabilities *supportedVolumeCapabilities;
@property (readonly, nonatomic) FSStatFSResult *volumeStatistics;
@property (readonly) BOOL enableOpenUnlinkEmulation;
@property (readonly) FSItemDeactivationOptions itemDeactivationPolicy;
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 260400
@property (readonly) FSMountOptions requestedMountOptions API_AVAILABLE(macos(26.4));
#endif
- (void)mountWithOptions:(FSTaskOptions *)options replyHandler:(void (^)(NSError *error))reply;
- (void)unmountWithReplyHandler:(void (^)(void))reply;
- (void)synchronizeWithFlags:(FSSyncFlags)flags replyHandler:(void (^)(NSError *error))reply;
- (void)reclaimItem:(FSItem *)item replyHandler:(void (^)(NSError *error))reply;
@end
