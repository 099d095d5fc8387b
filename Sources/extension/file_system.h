/// The extension's principal class: FSKit makes one per process and asks it to probe, load, check
/// and unload. Its name stands in the extension's information dictionary.
#pragma once

#import <FSKit/FSKit.h>

#include "extension/memory.hpp"
#include "fskit/tavelin_file_system.hpp"
#include "platform/mutex.hpp"

#include <memory>

@class TavelinServedVolume;

@interface TavelinFileSystem
    : FSUnaryFileSystem <FSUnaryFileSystemOperations, FSManageableResourceMaintenanceOperations> {
  @private
    std::shared_ptr<tavelin::TavelinFileSystem> _fileSystem;
    /* What the last load answered, until the unload. The volume in turn keeps this object until it
       is deactivated. */
    tavelin::Strong<TavelinServedVolume *> _volume;
    /* Held to change _volume and the container's status, as a volume may be deactivated while
       another is loaded. */
    tavelin::Mutex _statusLock;
}
/// Sets the container's status, unless `volume` is an earlier one whose end comes late. From any
/// thread.
- (void)volume:(TavelinServedVolume *)volume became:(FSContainerStatus *)status;
@end
