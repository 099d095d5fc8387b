#include "fskit/posix_error.hpp"

#include "core/ntfs_error.hpp"

namespace tavelin {

fskit::Error posixError(const std::exception& error, std::string_view op) {
    const std::int32_t code = recordError(error, op);
    if (const auto* own = dynamic_cast<const fskit::Error*>(&error)) {
        return *own;
    }
    return fskit::fs_errorForPOSIXError(code);
}

} // namespace tavelin
