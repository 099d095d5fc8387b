/// The one seam to the platform: every service that differs by platform, behind one small
/// interface each. A process starts with posixServices(); the macOS extension installs its own
/// before anything else runs, and tests replace single members.
#pragma once

#include "platform/information_dictionary.hpp"
#include "platform/repeating_timer.hpp"
#include "platform/system_log.hpp"
#include "platform/utility_queue.hpp"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavelin {

/// No member is ever empty. All are called from any thread, several at a time.
struct Services {
    std::function<InformationDictionary()> informationDictionary;
    std::function<std::optional<std::filesystem::path>(const std::string& group)> groupContainer;
    std::function<std::string()> operatingSystemVersion;
    std::function<std::unique_ptr<RepeatingTimer>(TimerSchedule, std::function<void()> tick)>
        makeTimer;
    std::shared_ptr<UtilityQueue> utilityQueue;
    std::shared_ptr<SystemLog> systemLog;
};

/// The services of a POSIX system. Their threads start when they are first needed, and do not
/// outlive a fork(): a process that daemonises does so before it starts timers or queues work.
[[nodiscard]] Services posixServices();

/// The services in force. The answer stays valid while it is held, whatever is installed meanwhile.
[[nodiscard]] std::shared_ptr<const Services> services();

/// Replaces all services from now on. What is already running keeps what it was made with.
void installServices(Services replacement);

} // namespace tavelin
