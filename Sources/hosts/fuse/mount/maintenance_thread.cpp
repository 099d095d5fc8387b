#include "hosts/fuse/mount/maintenance_thread.hpp"

#include "diagnostics/log.hpp"
#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
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
void raiseReadAhead(const std::filesystem::path& directory) {
    if (const std::optional<MountEntry> mount = findMount(directory)) {
        for (const char* suffix : {"", "-fuseblk"}) {
            std::ofstream setting("/sys/class/bdi/" + mount->device + suffix + "/read_ahead_kb");
            setting << kReadAhead << std::flush;
        }
    }
}

// The kernel waits with this until it has let go of the directory, and so for requests about names
// in it: while they are served, and only then, it returns.
void forgetNames(DentryInvalidationQueue& stale, fuse_session* session) {
    for (const DentryInvalidationQueue::Name& name : stale.take()) {
        if (session != nullptr) {
            // Fails only when the kernel remembers the name no more.
            (void)fuse_lowlevel_notify_inval_entry(session, name.directory, name.name.c_str(),
                                                   name.name.size());
        }
    }
}

} // namespace

MaintenanceThread::MaintenanceThread() {
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

MaintenanceThread::~MaintenanceThread() {
    stop();
    ::close(signals_);
    ::close(ending_);
}

void MaintenanceThread::start(const Context& charge) {
    thread_ = std::thread([this, charge] { watch(charge); });
}

void MaintenanceThread::suspend() {
    const MutexLock held(resting_);
    rests_ = true;
}

void MaintenanceThread::stop() {
    if (thread_.joinable()) {
        const uint64_t one = 1;
        (void)!::write(ending_, &one, sizeof one); // cannot fail: the counter is far from full
        thread_.join();
    }
}

void MaintenanceThread::watch(const Context& charge) {
    raiseReadAhead(charge.directory);
    DentryInvalidationQueue& stale = charge.volume.staleNames();
    for (;;) {
        pollfd events[] = {
            {ending_, POLLIN, 0}, {signals_, POLLIN, 0}, {stale.descriptor(), POLLIN, 0}};
        const int ready = ::poll(events, 3, kInterval);
        if (events[0].revents != 0) {
            return;
        }
        if (ready == 0) {
            persistOrphans(charge.volume.removedFiles());
        }
        if (events[1].revents != 0) {
            takeSignal(charge);
        }
        if (events[2].revents != 0) {
            forgetNames(stale, aborted_ ? nullptr : charge.session);
        }
    }
}

void MaintenanceThread::persistOrphans(OrphanFiles& removed) {
    const MutexLock held(resting_);
    if (!rests_) {
        removed.persistExpired();
    }
}

void MaintenanceThread::takeSignal(const Context& charge) {
    signalfd_siginfo signal{};
    (void)!::read(signals_, &signal, sizeof signal); // poll() has said that there is one
    if (stopRequested_) {
        aborted_ = true;
        charge.threads.stop();
        return;
    }
    stopRequested_ = true;
    if (const int failed = unmountOwnDirectory(charge.directory, false); failed != 0) {
        log().info(fmt::format("{}: {}; serving its users until they are done",
                               charge.directory.string(), errorText(fromHost(failed))));
        unmountOwnDirectory(charge.directory,
                            true); // if even this fails, the second signal ends us
    }
}

} // namespace tavelin::fusehost
