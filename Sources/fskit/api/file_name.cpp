#include "fskit/api/file_name.hpp"

#include "platform/utf8.hpp"

namespace fskit {

std::optional<std::string_view> FSFileName::string() const noexcept {
    if (!tavelin::isUTF8(data_)) {
        return std::nullopt;
    }
    return data_;
}

} // namespace fskit
