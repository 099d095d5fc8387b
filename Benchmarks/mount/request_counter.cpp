#include "Benchmarks/mount/request_counter.hpp"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <string>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tavelin::bench {

namespace {

// The tracepoint's number, from a tracefs of our own that is mounted nowhere; 0 for none.
uint64_t tracepoint() {
    const FileDescriptor context(::fsopen("tracefs", FSOPEN_CLOEXEC));
    if (!context || ::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return 0;
    const FileDescriptor root(::fsmount(context.get(), FSMOUNT_CLOEXEC, 0));
    if (!root)
        return 0;
    const FileDescriptor id(
        ::openat(root.get(), "events/fuse/fuse_request_send/id", O_RDONLY | O_CLOEXEC));
    char digits[32]{};
    if (!id || ::read(id.get(), digits, sizeof digits - 1) <= 0)
        return 0;
    return std::stoull(digits);
}

} // namespace

RequestCounter::RequestCounter() {
    perf_event_attr event{};
    event.type = PERF_TYPE_TRACEPOINT;
    event.size = sizeof event;
    event.config = tracepoint();
    if (event.config == 0)
        return;
    const int processors = static_cast<int>(::sysconf(_SC_NPROCESSORS_ONLN));
    for (int processor = 0; processor < processors; ++processor) {
        FileDescriptor counter(static_cast<int>(
            ::syscall(SYS_perf_event_open, &event, -1, processor, -1, PERF_FLAG_FD_CLOEXEC)));
        if (!counter) {
            counters_.clear(); // a count that leaves a processor out would be wrong
            return;
        }
        counters_.push_back(std::move(counter));
    }
}

uint64_t RequestCounter::count() const {
    uint64_t sum = 0;
    for (const FileDescriptor& counter : counters_) {
        uint64_t own = 0;
        if (::read(counter.get(), &own, sizeof own) == sizeof own)
            sum += own;
    }
    return sum;
}

} // namespace tavelin::bench
