/// The descriptors 0 to 2 of a process that was started without them.
#pragma once

namespace tavelin {

/// Opens each of the standard descriptors that is closed, so that no file opened later gets its
/// number: a message to standard error would then go into that file, which may be a disk image.
/// Reads and writes through the replacements fail, as they would through a closed descriptor.
///
/// To be called before anything is opened. False with errno set when one cannot be opened; the
/// process should end then.
[[nodiscard]] bool openStandardDescriptors() noexcept;

} // namespace tavelin
