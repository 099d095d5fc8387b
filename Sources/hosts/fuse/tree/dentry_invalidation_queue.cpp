#include "hosts/fuse/tree/dentry_invalidation_queue.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin::fusehost {

bool mayBeDosName(std::string_view name) noexcept {
    constexpr ptrdiff_t kDosNameCharactersMax = 12; // characters, which need not be of one byte
    const auto beginsCharacter = [](char byte) { return (byte & 0xC0) != 0x80; };
    return name.find('~') != std::string_view::npos &&
           std::count_if(name.begin(), name.end(), beginsCharacter) <= kDosNameCharactersMax;
}

DentryInvalidationQueue::DentryInvalidationQueue()
    : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void DentryInvalidationQueue::add(uint64_t directory, std::string_view name) {
    const MutexLock held(lock_);
    names_.push_back({directory, std::string(name)});
    const uint64_t one = 1;
    (void)!::write(event_.get(), &one, sizeof one); // cannot fail: the counter is far from full
}

std::vector<DentryInvalidationQueue::Name> DentryInvalidationQueue::take() {
    const MutexLock held(lock_);
    uint64_t count = 0;
    (void)!::read(event_.get(), &count, sizeof count); // fails when there are none, which is fine
    return std::exchange(names_, {});
}

} // namespace tavelin::fusehost
