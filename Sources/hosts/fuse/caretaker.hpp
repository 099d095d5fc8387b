/// What has to be done beside serving requests: the thread that waits for signals, looks after
/// removed files that stay open and tells the kernel of names that are stale.
///
/// The first SIGINT, SIGTERM or SIGHUP unmounts the folder as `umount` would; when somebody still
/// uses it, it is taken away at once and served until they are done. A second signal cuts them off.
#pragma once

#include "hosts/fuse/mounted_volume.hpp"
#include "hosts/fuse/serving_threads.hpp"
#include "platform/mutex.hpp"

#include <filesystem>
#include <thread>

struct fuse_session;

namespace tavelin::fusehost {

class Caretaker {
  public:
    /// Blocks the signals in the calling thread, and so in all that it starts later; to be called
    /// while there is no other. Throws std::system_error.
    Caretaker();
    ~Caretaker();
    Caretaker(const Caretaker&) = delete;
    Caretaker& operator=(const Caretaker&) = delete;

    /// What is given must stay until stop() has returned.
    struct Charge {
        std::filesystem::path folder;
        MountedVolume& volume;
        ServingThreads& threads;
        fuse_session* session;
    };
    void start(const Charge& charge);
    /// From its return on removed files are left alone. Does not wait for the thread, which may be
    /// the one that unmounts and so wait for whoever calls this.
    void rest();
    /// Returns once the thread has ended; does nothing when it has not been started.
    void stop();

  private:
    void watch(const Charge& charge);
    void takeSignal(const Charge& charge);
    void settle(RemovedFiles& removed);

    int signals_ = -1;     // a signalfd
    int ending_ = -1;      // an eventfd
    bool leaving_ = false; // the first signal has come
    bool cutOff_ = false;  // and the second: nobody serves any more
    std::thread thread_;
    Mutex resting_; // held while removed files are looked after
    bool rests_ TAVELIN_GUARDED_BY(resting_) = false;
};

} // namespace tavelin::fusehost
