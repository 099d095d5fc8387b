#include "hosts/fuse/mount/maintenance_thread.hpp"

#include "diagnostics/log.hpp"
#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/mount/complaint.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

constexpr int kInterval = 1000; // milliseconds

// The kernel takes the directory's lock for each invalidation, and requests on names in that
// directory hold it: an invalidation returns only while other threads serve those requests. So it
// is done by this thread, never by a worker, and not at all once the workers have ended.
void forgetNames(DentryInvalidationQueue& stale, fuse_session* session) {
    for (const DentryInvalidationQueue::Name& name : stale.take()) {
        if (session != nullptr) {
            // Fails only when the kernel has dropped the dentry already.
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
    signals_.reset(::signalfd(-1, &awaited, SFD_CLOEXEC));
    ending_.reset(::eventfd(0, EFD_CLOEXEC));
    if (!signals_ || !ending_) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

MaintenanceThread::~MaintenanceThread() {
    stop();
}

void MaintenanceThread::start(const Context& context) {
    thread_ = std::thread([this, context] { watch(context); });
}

void MaintenanceThread::suspend() {
    const MutexLock held(orphanWork_);
    suspended_ = true;
}

void MaintenanceThread::stop() {
    if (thread_.joinable()) {
        const uint64_t one = 1;
        (void)!::write(ending_.get(), &one,
                       sizeof one); // cannot fail: the counter is far from full
        thread_.join();
    }
}

void MaintenanceThread::watch(const Context& context) {
    DentryInvalidationQueue& stale = context.volume.invalidations();
    for (;;) {
        pollfd events[] = {{ending_.get(), POLLIN, 0},
                           {signals_.get(), POLLIN, 0},
                           {stale.descriptor(), POLLIN, 0}};
        const int ready = ::poll(events, 3, kInterval);
        if (events[0].revents != 0) {
            return;
        }
        if (ready == 0) {
            persistOrphans(context.volume.orphanFiles());
            if (stopRequested_ && !unmounted_ && !aborted_) {
                unmountMount(context);
            }
        }
        if (events[1].revents != 0) {
            takeSignal(context);
        }
        if (events[2].revents != 0) {
            forgetNames(stale, aborted_ ? nullptr : context.session);
        }
    }
}

void MaintenanceThread::persistOrphans(OrphanFiles& orphans) {
    const MutexLock held(orphanWork_);
    if (!suspended_) {
        orphans.persistExpired();
    }
}

void MaintenanceThread::takeSignal(const Context& context) {
    signalfd_siginfo signal{};
    (void)!::read(signals_.get(), &signal, sizeof signal); // poll() has said that there is one
    if (stopRequested_) {
        aborted_ = true;
        context.threads.stop();
        return;
    }
    stopRequested_ = true;
    unmountMount(context);
}

void MaintenanceThread::unmountMount(const Context& context) {
    if (context.isGone) {
        unmounted_ = true;
        return;
    }
    int failed = context.broker.unmount({});
    if (failed == EPIPE) {
        // Nobody is left who could unmount it, or write this into the log.
        complain(fmt::format("{}: its second process has ended, so it cannot be unmounted: "
                             "'tavelin umount' takes away what is left",
                             context.directory.string()));
        aborted_ = true;
        context.threads.stop();
        return;
    }
    if (failed != 0) {
        log().info(fmt::format("{}: {}; serving its users until they are done",
                               context.directory.string(), errorText(fromHost(failed))));
        // Fails while another mount covers this one. It is tried again then.
        failed = context.broker.unmount({.lazily = true});
    }
    unmounted_ = failed == 0;
}

} // namespace tavelin::fusehost
