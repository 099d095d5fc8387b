#import "extension/served_volume.h"

#import "extension/file_system.h"

#include "extension/reply.hpp"

#include <utility>

using tavelin::serve;
using tavelin::Strong;
using tavelin::toCore;
using tavelin::toFSKit;

@implementation TavelinServedVolume

- (instancetype)initWithVolume:(std::shared_ptr<tavelin::TavelinVolume>)volume
                    fileSystem:(TavelinFileSystem *)fileSystem {
    FSVolumeIdentifier *identifier =
        tavelin::made([[FSVolumeIdentifier alloc] initWithUUID:toFSKit(volume->volumeID().uuid)]);
    if ((self = [super
             initWithVolumeID:identifier
                   volumeName:toFSKit(static_cast<const fskit::FSVolume &>(*volume).name())])) {
        _handed = std::make_unique<tavelin::HandedItems>(*volume);
        _names = std::make_unique<tavelin::OrphaningRequests>(*volume);
        _volume = std::move(volume);
        // FSKit need not send a synchronise, and has none for a single file. The last close is then
        // all that tells when a program is done with it.
        _volume->setOpenCloseInhibited(false);
        _fileSystem = Strong(fileSystem);
    }
    return self;
}

- (BOOL)serves:(const tavelin::TavelinVolume &)volume {
    return _volume.get() == &volume;
}

- (NSUInteger)handedItemCount {
    return _handed->count();
}

// What the volume is

- (NSInteger)maximumLinkCount {
    return _volume->maximumLinkCount();
}

- (NSInteger)maximumNameLength {
    return _volume->maximumNameLength();
}

- (BOOL)restrictsOwnershipChanges {
    return _volume->restrictsOwnershipChanges();
}

- (BOOL)truncatesLongNames {
    return _volume->truncatesLongNames();
}

- (NSInteger)maximumXattrSize {
    return _volume->maximumXattrSize();
}

- (uint64_t)maximumFileSize {
    return _volume->maximumFileSize();
}

- (FSVolumeSupportedCapabilities *)supportedVolumeCapabilities {
    return toFSKit(_volume->supportedVolumeCapabilities());
}

- (FSStatFSResult *)volumeStatistics {
    return toFSKit(_volume->volumeStatistics());
}

// NTFS frees a file's record with its last name. From macOS 26.0 on FSKit keeps an open file's name
// out of sight until the last close, and asks for this when it does. Earlier releases never ask,
// and removed files are kept here.
- (BOOL)enableOpenUnlinkEmulation {
    _names->leaveRemovalsToHost();
    return YES;
}

- (FSItemDeactivationOptions)itemDeactivationPolicy {
    return static_cast<FSItemDeactivationOptions>(_volume->itemDeactivationPolicy());
}

// Asked for after the mount: a volume that could only be opened read-only is then mounted so, and
// the Finder offers no changes.
#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 260400
- (FSMountOptions)requestedMountOptions API_AVAILABLE(macos(26.4)) {
    return _volume->readOnly() ? FSMountOptionsReadOnly : 0;
}
#endif

// Lifecycle

- (tavelin::Outcome<FSItem *>)activeRoot:(FSTaskOptions *)options {
    const auto root = _names->activate(toCore(options));
    if (!root) {
        return root.error();
    }
    [_fileSystem.get() volume:self became:[FSContainerStatus active]];
    return _handed->handOut(*root);
}

- (tavelin::Outcome<void>)deactivated:(FSDeactivateOptions)options {
    auto deactivated = _names->deactivate(options);
    if (deactivated) {
        [_fileSystem.get() volume:self became:tavelin::nothingLoaded()];
        _fileSystem = Strong<::TavelinFileSystem *>();
    }
    return deactivated;
}

- (void)mountWithOptions:(FSTaskOptions *)options replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _volume->mount(toCore(options)); });
}

- (void)unmountWithReplyHandler:(void (^)(void))reply {
    serve(reply, [&] {
        _names->unmount();
        return std::tuple<>();
    });
}

- (void)synchronizeWithFlags:(FSSyncFlags)flags replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] { return _names->synchronize(static_cast<fskit::FSSyncFlags>(flags)); });
}

- (void)reclaimItem:(FSItem *)item replyHandler:(void (^)(NSError *error))reply {
    serve(reply, [&] {
        _names->reclaimed(_handed->reclaim(item));
        return tavelin::Outcome<void>();
    });
}

@end
