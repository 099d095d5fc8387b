#include "hosts/fuse/caretaker.hpp"

#include "diagnostics/log.hpp"
#include "hosts/fuse/mount_table.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

constexpr int kInterval = 1000;  // milliseconds
constexpr int kReadAhead = 1024; // KiB: lets one request fetch as much as one can carry

// The kernel reads ahead in pieces of 128 KiB unless told otherwise, which only an administrator
// may; without that, sequential reads just take more requests.
void raiseReadAhead(const std::filesystem::path& folder) {
    if (const std::optional<MountEntry> mount = findMount(folder)) {
        for (const char* suffix : {"", "-fuseblk"}) {
            std::ofstream setting("/sys/class/bdi/" + mount->device + suffix + "/read_ahead_kb");
            setting << kReadAhead << std::flush;
        }
    }
}

} // namespace

Caretaker::Caretaker() {
    sigset_t awaited;
    sigemptyset(&awaited);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&awaited, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    signals_ = ::signalfd(-1, &awaited, SFD_CLOEXEC);
    ending_ = ::eventfd(0, EFD_CLOEXEC);
    if (signals_ == -1 || ending_ == -1) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

Caretaker::~Caretaker() {
    stop();
    ::close(signals_);
    ::close(ending_);
}

void Caretaker::start(const std::filesystem::path& folder, RemovedFiles& removed,
                      ServingThreads& threads) {
    thread_ = std::thread([this, folder, &removed, &threads] { watch(folder, removed, threads); });
}

void Caretaker::rest() {
    const MutexLock held(resting_);
    rests_ = true;
}

void Caretaker::stop() {
    if (thread_.joinable()) {
        const uint64_t one = 1;
        (void)!::write(ending_, &one, sizeof one); // cannot fail: the counter is far from full
        thread_.join();
    }
}

void Caretaker::watch(const std::filesystem::path& folder, RemovedFiles& removed,
                      ServingThreads& threads) {
    raiseReadAhead(folder);
    bool leaving = false;
    for (;;) {
        pollfd events[] = {{ending_, POLLIN, 0}, {signals_, POLLIN, 0}};
        const int ready = ::poll(events, 2, kInterval);
        if (events[0].revents != 0) {
            return;
        }
        if (ready == 0) {
            const MutexLock held(resting_);
            if (!rests_) {
                removed.settleOld();
            }
        }
        if (events[1].revents == 0) {
            continue;
        }
        signalfd_siginfo signal{};
        (void)!::read(signals_, &signal, sizeof signal); // poll() has said that there is one
        if (leaving) {
            threads.stop();
            continue;
        }
        leaving = true;
        if (const int failed = unmountOwnFolder(folder, false); failed != 0) {
            log().info(fmt::format("{}: {}; serving its users until they are done", folder.string(),
                                   errorText(fromHost(failed))));
            unmountOwnFolder(folder, true); // if even this fails, the second signal ends us
        }
    }
}

} // namespace tavelin::fusehost
