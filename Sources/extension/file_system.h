/// The extension's principal class: FSKit makes one per process and asks it to probe, load, check
/// and unload. Its name stands in the extension's information dictionary.
#pragma once

#import <FSKit/FSKit.h>

#include "extension/memory.hpp"
#include "fskit/tavelin_file_system.hpp"

#include <memory>

@class TavelinServedVolume;

@interface TavelinFileSystem
    : FSUnaryFileSystem <FSUnaryFileSystemOperations, FSManageableResourceMaintenanceOperations> {
  @private
    std::shared_ptr<tavelin::TavelinFileSystem> _fileSystem;
    /* What the last load answered, until the unload. The volume in turn keeps this object until it
       is deactivated. */
    tavelin::Strong<TavelinServedVolume *> _volume;
}
@end
