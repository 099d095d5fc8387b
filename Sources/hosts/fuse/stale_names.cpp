#include "hosts/fuse/stale_names.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin::fusehost {

bool mayBeAlias(std::string_view name) noexcept {
    constexpr ptrdiff_t kLongestAlias = 12; // characters, which need not be of one byte
    const auto beginsCharacter = [](char byte) { return (byte & 0xC0) != 0x80; };
    return name.find('~') != std::string_view::npos &&
           std::count_if(name.begin(), name.end(), beginsCharacter) <= kLongestAlias;
}

StaleNames::StaleNames() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_ == -1) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

StaleNames::~StaleNames() {
    ::close(event_);
}

void StaleNames::add(uint64_t folder, std::string_view name) {
    const MutexLock held(lock_);
    names_.push_back({folder, std::string(name)});
    const uint64_t one = 1;
    (void)!::write(event_, &one, sizeof one); // cannot fail: the counter is far from full
}

std::vector<StaleNames::Name> StaleNames::take() {
    const MutexLock held(lock_);
    uint64_t count = 0;
    (void)!::read(event_, &count, sizeof count); // fails when there are none, which is fine
    return std::exchange(names_, {});
}

} // namespace tavelin::fusehost
