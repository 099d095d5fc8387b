/// The volume that FSKit holds.
#pragma once

#import <FSKit/FSKit.h>

#include "extension/handed_items.hpp"
#include "extension/memory.hpp"
#include "fskit/tavelin_volume.hpp"

#include <memory>

/// Passes each request on to the front end's volume and the answer back. Requests may come from any
/// thread at any time, as for that volume.
@interface TavelinVolume : FSVolume <FSVolumeOperations> {
  @private
    /* What requests go to. Shared with the file system, which closes it at the unload. */
    std::shared_ptr<tavelin::TavelinVolume> _volume;
    /* The items that FSKit holds; refers to _volume and is made after it. */
    std::unique_ptr<tavelin::HandedItems> _handed;
    tavelin::Strong<FSUnaryFileSystem *> _fileSystem;
}
/// `fileSystem` is told when the volume becomes active and when it is ready again.
- (instancetype)initWithVolume:(std::shared_ptr<tavelin::TavelinVolume>)volume
                    fileSystem:(FSUnaryFileSystem *)fileSystem;
/// How many items FSKit holds.
@property (nonatomic, readonly) NSUInteger handedItemCount;
@end

/* Requests for contents: reading, writing, opening and closing. */
@interface TavelinVolume (Data) <FSVolumeReadWriteOperations, FSVolumeOpenCloseOperations>
@end

/* The volume's name and extended attributes. */
@interface TavelinVolume (Names) <FSVolumeRenameOperations, FSVolumeXattrOperations>
@end
