#include "fskit/api/error.hpp"

#include "platform/error_numbers.hpp"

namespace fskit {

Error fs_errorForPOSIXError(std::int32_t code) {
    return {NSPOSIXErrorDomain, code, tavelin::errorText(code)};
}

} // namespace fskit
