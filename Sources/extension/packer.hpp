/// FSKit's packer as the front end fills it.
#pragma once

#include "extension/memory.hpp"
#include "extension/values.hpp"
#include "fskit/api/directory.hpp"

#import <FSKit/FSKit.h>

namespace tavelin {

/// For the length of one request, on its thread.
class PackerAdapter final : public fskit::FSDirectoryEntryPacker {
  public:
    explicit PackerAdapter(::FSDirectoryEntryPacker* packer) : packer_(packer) {}

    bool packEntry(const fskit::FSFileName& name, fskit::FSItemType itemType,
                   fskit::FSItemID itemID, fskit::FSDirectoryCookie nextCookie,
                   const fskit::FSItemAttributes* attributes) override {
        @autoreleasepool {
            return [packer_.get()
                packEntryWithName:toFSKit(name)
                         itemType:static_cast<::FSItemType>(itemType)
                           itemID:static_cast<::FSItemID>(itemID)
                       nextCookie:nextCookie
                       attributes:attributes != nullptr ? toFSKit(*attributes) : nil];
        }
    }

  private:
    const Strong<::FSDirectoryEntryPacker*> packer_;
};

} // namespace tavelin
