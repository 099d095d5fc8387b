// The device as libntfs-3g sees it: a table of operations over an ntb_devctx.
#pragma once

#include "NTFSBridge/device/devctx.hpp"
#include "NTFSBridge/library.hpp"

namespace ntb {

// For ntfs_device_alloc, with an ntb_devctx as private pointer. Every operation reports failure as
// -1 with errno. Not const because the library takes it so; it is never written.
extern ntfs_device_operations ntb_dev_ops;

// For a volume whose last operation was taken back: reads are as above, writes and syncs succeed
// and do nothing.
extern ntfs_device_operations ntb_discarding_ops;

} // namespace ntb
