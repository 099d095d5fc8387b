/// The extension's principal class: FSKit makes one per process and asks it to probe, load, check
/// and unload. Its name stands in the extension's information dictionary.
#pragma once

#import <FSKit/FSKit.h>

#include "fskit/tavelin_file_system.hpp"

#include <memory>

@interface TavelinFileSystem
    : FSUnaryFileSystem <FSUnaryFileSystemOperations, FSManageableResourceMaintenanceOperations> {
  @private
    std::shared_ptr<tavelin::TavelinFileSystem> _fileSystem;
}
@end
