/// The thread that does what a mount needs beside serving requests: it waits for signals, persists
/// the unlinked state of orphan files and tells the kernel of dentries that are no longer valid.
///
/// The first SIGINT, SIGTERM or SIGHUP unmounts this mount, as `umount` would. While the mount is
/// in use it is detached at once and served until its last user is done; while another mount lies
/// on top of it, the unmount is tried again every second. A second signal ends the serving.
#pragma once

#include "hosts/fuse/mount/broker.hpp"
#include "hosts/fuse/protocol/worker_threads.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <filesystem>
#include <thread>

struct fuse_session;

namespace tavelin::fusehost {

class MaintenanceThread {
  public:
    /// Blocks the signals in the calling thread, and so in all that it starts later; to be called
    /// while there is no other. Throws std::system_error.
    MaintenanceThread();
    ~MaintenanceThread();
    MaintenanceThread(const MaintenanceThread&) = delete;
    MaintenanceThread& operator=(const MaintenanceThread&) = delete;

    /// Everything referred to must outlive the call of stop().
    struct Context {
        Broker& broker; ///< that has made the mount
        const std::filesystem::path& directory;
        const std::atomic<bool>& isGone; ///< the kernel has unmounted it
        MountedVolume& volume;
        WorkerThreads& threads;
        fuse_session* session;
    };
    /// Called once, when the mount is made.
    void start(const Context& context);
    /// After its return the thread no longer touches the volume's orphan files. Does not wait for
    /// the thread: it may be blocked in the unmount, which itself waits for the caller.
    void suspend();
    /// Returns once the thread has ended; does nothing when it has not been started.
    void stop();

  private:
    /// The thread's work: waits for a signal, an invalidation, or the time to persist orphans.
    void watch(const Context& context);
    /// The first signal asks for an unmount, a second one ends the serving.
    void takeSignal(const Context& context);
    /// Unmounts, or detaches a mount that is in use. Tried again each second where another mount
    /// lies on top.
    void unmountMount(const Context& context);
    /// Moves files aside whose unlink has been pending for a second, unless suspended.
    void persistOrphans(OrphanFiles& orphans);

    FileDescriptor signals_;     // a signalfd
    FileDescriptor ending_;      // an eventfd
    bool stopRequested_ = false; // the first signal has come
    bool unmounted_ = false;     // and the unmount it asked for has succeeded
    bool aborted_ = false;       // a second signal has come: nobody serves any more
    /// Started by start() and joined by stop().
    std::thread thread_;
    // Held across the calls into the volume that persist orphans, so that suspend() returns only
    // between them. Taken before every lock of the tree and the volume.
    Mutex orphanWork_ TAVELIN_ACQUIRED_BEFORE(lock_order::directories);
    bool suspended_ TAVELIN_GUARDED_BY(orphanWork_) = false;
};

} // namespace tavelin::fusehost
