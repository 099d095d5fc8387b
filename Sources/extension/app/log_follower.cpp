#include "extension/app/log_follower.hpp"

#include <utility>

namespace tavelin {

std::string LogFollower::added() {
    if (!std::exchange(begun_, true)) {
        return end();
    }
    EventLog::Chunk chunk = log_.read(offset_);
    offset_ = chunk.offset;
    return std::move(chunk.text);
}

std::string LogFollower::end() {
    // The end's text comes without its offset. The extension writes rarely, so one of a few tries
    // falls between two events; if none does, the events in between are shown twice.
    constexpr int kTries = 4;
    std::string text;
    for (int attempt = 0; attempt < kTries; ++attempt) {
        offset_ = static_cast<std::uint64_t>(log_.size());
        text = log_.tail(firstBytes_);
        if (std::cmp_equal(log_.size(), offset_)) {
            break;
        }
    }
    return text;
}

} // namespace tavelin
