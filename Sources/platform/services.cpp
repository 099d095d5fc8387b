#include "platform/services.hpp"

#include "platform/group_container.hpp"
#include "platform/mutex.hpp"
#include "platform/os_version.hpp"
#include "platform/private/posix_services.hpp"

#include <algorithm>
#include <cmath>

namespace tavelin {

namespace {

/// The services in force. The lock is a leaf and covers only the exchange of the pointer.
class Installed {
  public:
    std::shared_ptr<const Services> get() {
        MutexLock lock(mutex_);
        return current_;
    }

    void set(std::shared_ptr<const Services> replacement) {
        // The swap leaves the old services in the argument, which is destroyed after the lock is
        // released. Their destructors may call services() again.
        MutexLock lock(mutex_);
        current_.swap(replacement);
    }

  private:
    Mutex mutex_;
    std::shared_ptr<const Services>
        current_ TAVELIN_GUARDED_BY(mutex_) = std::make_shared<const Services>(posixServices());
};

Installed& installed() {
    // Never destroyed: threads of the services may still run while the process exits.
    static Installed& instance = *new Installed;
    return instance;
}

} // namespace

Services posixServices() {
    return {posix::informationDictionary,  posix::groupContainer,
            posix::operatingSystemVersion, posix::makeTimer,
            posix::utilityQueue(),         makePosixSystemLog()};
}

std::shared_ptr<const Services> services() {
    return installed().get();
}

void installServices(Services replacement) {
    installed().set(std::make_shared<const Services>(std::move(replacement)));
}

InformationDictionary mainInformationDictionary() {
    return services()->informationDictionary();
}

std::optional<std::string> informationText(const InformationDictionary& dictionary,
                                           std::initializer_list<std::string_view> keys) {
    const InformationDictionary* level = &dictionary;
    const Value* entry = nullptr;
    for (const std::string_view key : keys) {
        // Every key but the first looks into the entry before it, which must be a dictionary.
        if (entry != nullptr) {
            level = entry->as<Value::Map>();
        }
        if (level == nullptr) {
            return std::nullopt;
        }
        const auto found = level->find(key);
        if (found == level->end()) {
            return std::nullopt;
        }
        entry = &found->second;
    }
    if (entry == nullptr || entry->as<std::string>() == nullptr) {
        return std::nullopt;
    }
    return *entry->as<std::string>();
}

std::optional<std::filesystem::path> groupContainer(const std::string& group) {
    return services()->groupContainer(group);
}

std::string operatingSystemVersion() {
    return services()->operatingSystemVersion();
}

void runOnUtilityQueue(std::function<void()> work) {
    services()->utilityQueue->async(std::move(work));
}

TimerSchedule TimerSchedule::every(double seconds, std::chrono::nanoseconds leeway) {
    constexpr double kSecondsMin = 0.001;
    constexpr double kSecondsMax = 24 * 60 * 60;
    // std::clamp passes NaN through, and converting NaN to an integer is undefined.
    const double clamped =
        std::isnan(seconds) ? kSecondsMin : std::clamp(seconds, kSecondsMin, kSecondsMax);
    return {std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::chrono::duration<double>(clamped)),
            leeway};
}

std::unique_ptr<RepeatingTimer> makeUnownedTimer(TimerSchedule schedule,
                                                 std::function<void()> tick) {
    return services()->makeTimer(schedule, std::move(tick));
}

} // namespace tavelin
