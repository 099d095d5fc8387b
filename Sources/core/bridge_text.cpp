#include "core/private/bridge_text.hpp"

#include "core/ntfs_error.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>

namespace tavelin {

BridgeText::BridgeText(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) {
        return;
    }
    if (text.size() < small_.size()) {
        *std::ranges::copy(text, small_.begin()).out = '\0';
        terminated_ = small_.data();
    } else {
        large_ = text;
        terminated_ = large_.c_str();
    }
}

const char* BridgeText::cString() const {
    if (terminated_ == nullptr) {
        throw NTFSError(kEINVAL);
    }
    return terminated_;
}

} // namespace tavelin
