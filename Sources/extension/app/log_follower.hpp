/// What the host application shows of the extension's event log: its end at first, then whatever
/// is added. One thread.
#pragma once

#include "diagnostics/event_log.hpp"

#include <cstdint>
#include <string>

namespace tavelin {

class LogFollower {
  public:
    /// `log` must outlive this. `firstBytes` bounds how much of the past the first call shows.
    explicit LogFollower(const EventLog& log, std::int64_t firstBytes = 64 * 1024)
        : log_(log), firstBytes_(firstBytes) {}

    /// The lines that were added since the last call; at the first call the last whole lines.
    [[nodiscard]] std::string added();

  private:
    /// The last whole lines of the log, for the first call.
    [[nodiscard]] std::string end();

    const EventLog& log_;
    const std::int64_t firstBytes_;
    /// Where the next call goes on, in bytes of the log's file.
    std::uint64_t offset_ = 0;
    bool begun_ = false;
};

} // namespace tavelin
