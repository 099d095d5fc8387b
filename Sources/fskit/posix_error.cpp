#include "fskit/posix_error.hpp"

#include "core/ntfs_error.hpp"

namespace tavelin {

fskit::Error hostError(const std::exception& error) {
    const auto* const own = dynamic_cast<const fskit::Error*>(&error);
    return own != nullptr ? *own : fskit::fs_errorForPOSIXError(errorCode(error));
}

fskit::Error posixError(const std::exception& error, std::string_view op) {
    static_cast<void>(recordError(error, op));
    return hostError(error);
}

} // namespace tavelin
