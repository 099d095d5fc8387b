#include "fskit/api/error.hpp"

#include "platform/error_numbers.hpp"

#include <vector>

namespace fskit {

namespace {

constexpr std::int32_t kKnown = 128; // beyond ELAST, the last of macOS's <sys/errno.h>

Error makePOSIX(std::int32_t code) {
    return {NSPOSIXErrorDomain, code, tavelin::errorText(code)};
}

std::vector<Error> makeKnown() {
    std::vector<Error> errors;
    errors.reserve(kKnown);
    for (std::int32_t code = 0; code < kKnown; ++code) {
        errors.push_back(makePOSIX(code));
    }
    return errors;
}

} // namespace

Error fs_errorForPOSIXError(std::int32_t code) {
    // Never destroyed: requests may still be answered while the process exits.
    static const std::vector<Error>& known = *new std::vector(makeKnown());
    return code >= 0 && code < kKnown ? known[static_cast<std::size_t>(code)] : makePOSIX(code);
}

} // namespace fskit
