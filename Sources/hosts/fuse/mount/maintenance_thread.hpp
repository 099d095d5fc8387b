/// What has to be done beside serving requests: the thread that waits for signals, looks after
/// removed files that stay open and tells the kernel of names that are stale.
///
/// The first SIGINT, SIGTERM or SIGHUP unmounts the directory as `umount` would; when somebody
/// still uses it, it is taken away at once and served until they are done. A second signal cuts
/// them off.
#pragma once

#include "hosts/fuse/protocol/worker_threads.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/mutex.hpp"

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

    /// What is given must stay until stop() has returned.
    struct Context {
        std::filesystem::path directory;
        MountedVolume& volume;
        WorkerThreads& threads;
        fuse_session* session;
    };
    void start(const Context& charge);
    /// From its return on removed files are left alone. Does not wait for the thread, which may be
    /// the one that unmounts and so wait for whoever calls this.
    void suspend();
    /// Returns once the thread has ended; does nothing when it has not been started.
    void stop();

  private:
    void watch(const Context& charge);
    void takeSignal(const Context& charge);
    void persistOrphans(OrphanFiles& removed);

    int signals_ = -1;           // a signalfd
    int ending_ = -1;            // an eventfd
    bool stopRequested_ = false; // the first signal has come
    bool aborted_ = false;       // and the second: nobody serves any more
    std::thread thread_;
    Mutex resting_; // held while removed files are looked after
    bool rests_ TAVELIN_GUARDED_BY(resting_) = false;
};

} // namespace tavelin::fusehost
