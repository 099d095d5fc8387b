/// FSKit's values across the border: each function makes the other side's form of its argument.
/// Objects returned are the caller's to use at once, as from any method (autoreleased).
#pragma once

#include "fskit/api/file_system.hpp"

#import <FSKit/FSKit.h>
#include <optional>
#include <span>
#include <vector>

namespace tavelin {

/// Nil becomes an empty name, which no request accepts.
[[nodiscard]] fskit::FSFileName toCore(FSFileName* name);
/// The option words of a mount or a task.
[[nodiscard]] fskit::FSTaskOptions toCore(FSTaskOptions* options);
/// Which attributes the host wants.
[[nodiscard]] fskit::FSItemGetAttributesRequest toCore(FSItemGetAttributesRequest* request);
/// Takes the valid attributes.
[[nodiscard]] fskit::FSItemSetAttributesRequest toCore(FSItemSetAttributesRequest* request);
/// Domain, code and text are kept.
[[nodiscard]] fskit::Error toCore(NSError* error);
/// A view of the data's bytes, valid as long as the data.
[[nodiscard]] std::span<const std::byte> bytesOf(NSData* data);

/// By its bytes, which need not be UTF-8.
[[nodiscard]] FSFileName* toFSKit(const fskit::FSFileName& name);
[[nodiscard]] NSArray<FSFileName*>* toFSKit(const std::vector<fskit::FSFileName>& names);
/// Sets the valid attributes.
[[nodiscard]] FSItemAttributes* toFSKit(const fskit::FSItemAttributes& attributes);
/// The error with its domain and its text.
[[nodiscard]] NSError* toFSKit(const fskit::Error& error);
/// A copy of the bytes.
[[nodiscard]] NSData* toFSKit(const std::vector<std::byte>& data);
[[nodiscard]] FSProbeResult* toFSKit(const fskit::FSProbeResult& result);
[[nodiscard]] FSVolumeSupportedCapabilities*
toFSKit(const fskit::FSVolumeSupportedCapabilities& capabilities);
[[nodiscard]] FSStatFSResult* toFSKit(const fskit::FSStatFSResult& statistics);
/// The same 16 bytes.
[[nodiscard]] NSUUID* toFSKit(const fskit::UUID& uuid);

/// The container's status without a volume. FSKit has none for that: EAGAIN says that a load may
/// follow.
[[nodiscard]] FSContainerStatus* nothingLoaded();

/// Nil when absent.
template<typename Value>
[[nodiscard]] auto toFSKit(const std::optional<Value>& value) -> decltype(toFSKit(*value)) {
    return value ? toFSKit(*value) : nil;
}

} // namespace tavelin
