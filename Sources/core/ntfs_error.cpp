#include "core/ntfs_error.hpp"

#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"
#include "platform/utf8.hpp"

#include <limits>

namespace tavelin {

namespace {

constexpr std::int64_t kDeviceErrorEventsMax = 20;
constexpr std::size_t kDescriptionCharactersMax = 200;

/// Counts an error for the diagnostics, whose own lack of memory must not become a second failure.
void tally(std::int32_t code, std::string_view prefix, std::string_view op) noexcept {
    try {
        errorTally().record(code, std::string(prefix).append(op));
    } catch (const std::bad_alloc&) {
        return; // the count is lost, the error itself is still answered
    }
}

std::int64_t countDeviceError() noexcept {
    const std::int64_t before = deviceErrorEvents.fetch_add(1);
    if (before == std::numeric_limits<std::int64_t>::max()) {
        fatal("deviceErrorEvents overflowed");
    }
    return before + 1;
}

} // namespace

std::atomic<std::int64_t> deviceErrorEvents{0};

NTFSError::NTFSError(std::int32_t errorCode)
    : std::runtime_error(std::to_string(errorCode) + ' ' + errorText(errorCode)), code(errorCode) {}

std::int32_t errorCode(const std::exception& error) noexcept {
    const auto* known = dynamic_cast<const NTFSError*>(&error);
    return known != nullptr ? known->code : kEIO;
}

std::int32_t recordError(const std::exception& error, std::string_view op) noexcept {
    const std::int32_t code = errorCode(error);
    tally(code, {}, op.substr(0, op.find('(')));
    return code;
}

void deviceError(std::string_view op, std::int32_t hostError, std::uint64_t offset,
                 std::uint64_t length, std::string_view description) noexcept {
    const std::int32_t code = fromHost(hostError);
    tally(code, "device_", op);
    if (countDeviceError() > kDeviceErrorEventsMax) {
        return;
    }
    try {
        const std::string text = repairUTF8(description);
        events().event("device_error",
                       Fields{{"op", op},
                              {"errno", code},
                              {"off", offset},
                              {"len", length},
                              {"err", firstCharacters(text, kDescriptionCharactersMax)}});
    } catch (const std::bad_alloc&) {
        return; // the event is lost, the error itself is still answered
    }
}

} // namespace tavelin
