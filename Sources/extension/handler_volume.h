/// The volume that FSKit of macOS 27.0 and later holds.
#pragma once

#import "extension/served_volume.h"

#include "extension/handler_answers.hpp"

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000

/// Answers each request with one object, in which FSKit finds the attributes of what has changed
/// and the free space: one request where TavelinVolume takes two to four.
///
/// FSKit numbers sets of attributes to tell which is the newest. So they are filled in within the
/// scope that orders the requests of this volume, and replied outside of it.
API_AVAILABLE(macos(27.0))
@interface TavelinHandlerVolume : TavelinServedVolume <FSVolumeHandler> {
  @private
    tavelin::AnswerOrder _order;
}
@end

/* Requests for contents: reading, writing, reserving space, opening, closing and the end of use. */
API_AVAILABLE(macos(27.0))
@interface TavelinHandlerVolume (Data) <FSVolumeReadWriteHandler, FSVolumePreallocateHandler,
                                        FSVolumeSeekRegionHandler, FSVolumeOpenCloseHandler,
                                        FSVolumeItemDeactivationHandler>
@end

/* The volume's name and extended attributes. */
API_AVAILABLE(macos(27.0))
@interface TavelinHandlerVolume (Names) <FSVolumeRenameHandler, FSVolumeXattrHandler>
@end

#endif
