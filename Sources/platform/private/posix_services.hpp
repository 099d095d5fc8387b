/// The POSIX implementations that posixServices() hands out. Contracts are those of the public
/// headers of the same subjects.
#pragma once

#include "platform/services.hpp"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavelin::posix {

// The members of Services, in its order. Each may be called from any thread.
[[nodiscard]] InformationDictionary informationDictionary();
[[nodiscard]] std::optional<std::filesystem::path> groupContainer(const std::string& group);
[[nodiscard]] std::string operatingSystemVersion();
[[nodiscard]] std::unique_ptr<RepeatingTimer> makeTimer(TimerSchedule schedule,
                                                        std::function<void()> tick);
[[nodiscard]] std::shared_ptr<UtilityQueue> utilityQueue();

/// The container for the given values of $TAVELIN_GROUP_CONTAINER, $XDG_STATE_HOME and $HOME (null
/// or empty counts as not set), for root or another user. Separate from the environment so that
/// tests can pass values.
[[nodiscard]] std::optional<std::filesystem::path>
containerFrom(const char* container, const char* stateHome, const char* home,
              const std::string& group, bool isRoot);

/// The text of PRETTY_NAME in an os-release file's contents; empty when there is none.
[[nodiscard]] std::string prettyName(std::string_view osRelease);

/// Runs `body` on a detached thread with all signals blocked, which are then delivered to a thread
/// that expects them; but SIGSYS, which a thread's own system call raises. Nothing joins the
/// thread, so `body` must own all it uses and must not throw. Throws std::system_error when there
/// is no thread.
void spawnUtilityThread(std::function<void()> body);

} // namespace tavelin::posix
