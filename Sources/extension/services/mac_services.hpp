/// The platform's services as macOS has them: the main bundle's information dictionary, app-group
/// containers, the unified log, dispatch timers and the global utility queue. C++ only, so that
/// plain C++ files may include it.
#pragma once

#include "platform/services.hpp"

namespace tavelin {

/// To be installed before anything else of Tavelin runs in the process.
[[nodiscard]] Services macServices();

namespace mac {

[[nodiscard]] std::shared_ptr<SystemLog> unifiedLog();
[[nodiscard]] std::unique_ptr<RepeatingTimer> dispatchTimer(TimerSchedule schedule,
                                                            std::function<void()> tick);
[[nodiscard]] std::shared_ptr<UtilityQueue> globalUtilityQueue();

} // namespace mac

} // namespace tavelin
