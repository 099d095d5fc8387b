/// The one seam to the platform: every service that differs by platform, behind one small
/// interface each.
///
/// A process starts with posixServices(). The macOS extension installs its own before anything
/// else runs, the command line replaces the system log, and tests replace single members. The
/// functions that use a service (groupContainer(), runOnUtilityQueue(), ...) are declared in the
/// service's own header, so callers rarely include this one.
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

/// No member is ever empty. Each is called from any thread, several calls at a time, and keeps the
/// contract of the header named beside it.
struct Services {
    /// platform/information_dictionary.hpp
    std::function<InformationDictionary()> informationDictionary;
    /// platform/group_container.hpp
    std::function<std::optional<std::filesystem::path>(const std::string& group)> groupContainer;
    /// platform/os_version.hpp
    std::function<std::string()> operatingSystemVersion;
    /// platform/repeating_timer.hpp
    std::function<std::unique_ptr<RepeatingTimer>(TimerSchedule, std::function<void()> tick)>
        makeTimer;
    /// platform/utility_queue.hpp
    std::shared_ptr<UtilityQueue> utilityQueue;
    /// platform/system_log.hpp
    std::shared_ptr<SystemLog> systemLog;
};

/// The services of a POSIX system. Their threads start when they are first needed. Threads do not
/// survive a fork(), so a process that daemonises does so before it starts timers or queues work.
[[nodiscard]] Services posixServices();

/// The services in force. The result stays valid while it is held, whatever is installed
/// meanwhile. Any thread; takes a leaf lock.
[[nodiscard]] std::shared_ptr<const Services> services();

/// Replaces all services from now on. Timers and queued work that exist already keep the services
/// they were made with. Any thread.
void installServices(Services replacement);

} // namespace tavelin
