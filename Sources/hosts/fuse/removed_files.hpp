/// Files whose name the user removed while somebody may still have them open.
///
/// The kernel does not tell us of opens and closes; it only lets go of a file's node when the last
/// user has closed it, which for a file that nobody has open is at once. So the removal of a file's
/// last name waits until then:
///
///   hidden   The name is still on the volume and does not show. Nearly every removal ends here,
///            with the real removal a moment later, at no cost.
///   parked   The file has been moved to the parking folder, because its name is needed or its
///            folder goes, because changes are being synchronised, or because it has been open for
///            a second. The name is free and the removal will survive a crash.
///
/// The parking folder is a hidden folder in the volume's root that does not show either. What is
/// in it is removed when its user lets go of it, at unmount, and when a volume is mounted again
/// after a crash. A removal that fails when nobody waits for it any more is reported by the next
/// synchronise.
///
/// Any thread may call anything. The lock is never held across a call into the volume; meanwhile
/// the removal that is being worked on is marked busy.
#pragma once

#include "hosts/fuse/node_table.hpp"
#include "hosts/module/volume_client.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tavelin::fusehost {

class RemovedFiles {
  public:
    static constexpr std::string_view kParkingFolder = ".tavelin-removed";

    explicit RemovedFiles(VolumeClient& volume) : volume_(volume) {}

    /// Removes what a crash left in the parking folder. Errors are logged: they keep nobody from
    /// using the volume.
    void cleanUp();

    /// Whether an inode's only name is one that the user has removed.
    bool contains(uint64_t ino) const;
    bool isEmpty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }

    /// Hides a file, or parks it when it has other names too, which then show as before.
    Outcome<void> remove(Node& file, const Node& folder, std::string_view name);
    /// Gives a file that is about to be replaced a parked name beside the one it will lose.
    Outcome<void> keep(const Node& file);
    /// Gives up the parked name of a file that shows under others still.
    void leaveToOtherNames(Node& file);

    /// Parks a hidden file, or all those of one folder, so that the name or the folder is free.
    Outcome<void> freeName(uint64_t ino);
    Outcome<void> freeFolder(const Node& folder);
    /// Parks all hidden files; answers the error of the first removal that has failed since the
    /// last call, if any.
    Outcome<void> settle();
    /// Parks what has been hidden for longer than a second.
    void settleOld();

    /// The kernel has let go of the file: removes it.
    void release(uint64_t ino);
    /// Removes everything, and the parking folder: for unmounting.
    Outcome<void> releaseAll();

  private:
    using Clock = std::chrono::steady_clock;
    struct Removal {
        ItemRef item;
        ItemRef folder; // where the name is now
        uint64_t folderIno = 0;
        std::string name;
        Clock::time_point since;
        bool parked = false;
        bool busy = false; // one thread is changing it, without the lock
    };

    Outcome<ItemRef> parkingFolder();
    Outcome<void> park(const Node& file, const Node& folder, std::string_view name);
    Outcome<void> moveToParking(Removal& removal, uint64_t ino);
    /// Calls `work(removal)` without the lock, alone with this removal; the entry goes when that
    /// answers true. Nothing happens when there is none.
    template<typename Work>
    void alone(uint64_t ino, Work&& work);
    void put(uint64_t ino, Removal removal);
    void finish(const Removal& removal);
    void noteFailure(const fskit::Error& error, const std::string& name);
    /// Parks the hidden files that `wanted(removal)` chooses; the first error.
    template<typename Wanted>
    Outcome<void> parkWhere(Wanted&& wanted);

    VolumeClient& volume_;
    mutable Mutex lock_;
    ConditionVariable idle_; // some removal is no longer busy
    std::atomic<size_t> count_{0};
    std::unordered_map<uint64_t, Removal> removals_ TAVELIN_GUARDED_BY(lock_);
    std::optional<fskit::Error> failure_ TAVELIN_GUARDED_BY(lock_);
    Mutex parkingLock_; // held while the parking folder is found, made or removed; before lock_
    ItemRef parking_ TAVELIN_GUARDED_BY(parkingLock_);
};

} // namespace tavelin::fusehost
