/// The volume that FSKit of macOS 15.4 to 26 holds.
#pragma once

#import "extension/served_volume.h"

/// Answers each request with its own result alone; FSKit asks for attributes and free space
/// afterwards.
@interface TavelinVolume : TavelinServedVolume <FSVolumeOperations>
@end

/* Requests for contents: reading, writing, reserving space, opening, closing and the end of use. */
@interface TavelinVolume (Data) <FSVolumeReadWriteOperations, FSVolumePreallocateOperations,
                                 FSVolumeOpenCloseOperations, FSVolumeItemDeactivation>
@end

/* The volume's name and extended attributes. */
@interface TavelinVolume (Names) <FSVolumeRenameOperations, FSVolumeXattrOperations>
@end
