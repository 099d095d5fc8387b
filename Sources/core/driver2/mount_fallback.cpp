#include "core/driver2/mount_fallback.hpp"

namespace tavelin::Driver2 {

std::string describe(std::int32_t code) {
    switch (code) {
    case kEPERM:
        return "hibernated_or_fast_startup";
    case kEIO:
        return "io_error";
    case kEINVAL:
        return "not_ntfs";
    case kENOSPC:
        return "no_space";
    case kEROFS:
        return "read_only";
    default:
        return "errno_" + std::to_string(code);
    }
}

} // namespace tavelin::Driver2
