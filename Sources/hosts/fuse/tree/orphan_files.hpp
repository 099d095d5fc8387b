/// Files whose name the user removed while somebody may still have them open.
///
/// The kernel does not tell us of opens and closes; it only lets go of a file's node when the last
/// user has closed it, which for a file that nobody has open is at once. So the removal of a file's
/// last name waits until then:
///
///   hidden   The name is still on the volume and does not show. Nearly every removal ends here,
///            with the real removal a moment later, at no cost.
///   parked   The file has been moved to the parking directory, because its name is needed or its
///            directory goes, because changes are being synchronised, or because it has been open
/// for
///            a second. The name is free and the removal will survive a crash.
///
/// On a volume without room for a parking place files stay hidden until there is. A removal that
/// fails when nobody waits for it any more is reported by the next synchronise.
///
/// Any thread may call anything. The lock is never held across a call into the volume; meanwhile
/// the removal that is being worked on is marked busy.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/fuse/tree/node_table.hpp"
#include "hosts/fuse/tree/orphan_directory.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace tavelin::fusehost {

class OrphanFiles {
  public:
    static constexpr std::string_view kOrphanDirectory = OrphanDirectory::kName;

    explicit OrphanFiles(VolumeClient& volume) : volume_(volume), parking_(volume) {}

    /// Removes what a crash left in the parking directory.
    void cleanUp() { parking_.cleanUp(); }

    /// Whether an item's only name is one that the user has removed.
    bool contains(fskit::FSItemID id) const;
    bool isEmpty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }

    /// Hides a file, or just takes the name from it when it has others.
    Outcome<void> remove(const Node& file, const Node& directory, std::string_view name);
    /// Gives a file that is about to be replaced a parked name beside the one it will lose. Then
    /// either gives that up for a file that shows under others still, or, when the replacement has
    /// failed, sees to it that the file has its own name as before.
    Outcome<void> linkBeforeReplace(const Node& file);
    void dropIfStillLinked(const Node& file);
    void undoReplace(const Node& file, const Node& directory, std::string_view name);

    /// Parks a hidden file, or all those of one directory, so that the name or the directory is
    /// free.
    Outcome<void> moveAside(fskit::FSItemID id);
    Outcome<void> moveAsideChildren(const Node& directory);
    /// Parks all hidden files for which there is room; answers the error of the first removal that
    /// has failed since the last call, if any.
    Outcome<void> persistOrphans();
    /// Parks what has been hidden for longer than a second.
    void persistExpired();

    /// The kernel has let go of the file: removes it.
    void release(const Node& file);
    /// Removes everything, and the parking directory: for unmounting.
    Outcome<void> releaseAll();

  private:
    using Clock = std::chrono::steady_clock;
    struct Removal {
        ItemRef item;
        ItemRef directory; // where the name is now
        fskit::FSItemID directoryID = fskit::FSItemIDInvalid;
        std::string name;
        Clock::time_point since = Clock::now();
        bool parked = false;
        bool busy = false; // one thread is changing it, without the lock
        // A file that a failed replacement left without its name goes back to it instead.
        ItemRef homeDirectory{};
        std::string home{};
    };

    void release(fskit::FSItemID id);
    Outcome<void> moveToParking(Removal& removal, fskit::FSItemID id);
    Outcome<void> moveHome(const Removal& removal);
    /// Calls `work(removal)` without the lock, alone with this removal; the entry goes when that
    /// answers true. Nothing happens when there is none.
    template<typename Work>
    void withExclusive(fskit::FSItemID id, Work&& work);
    Removal* begin(fskit::FSItemID id);
    void end(fskit::FSItemID id, bool done);
    void put(fskit::FSItemID id, Removal removal);
    void finish(const Removal& removal);
    void noteFailure(const fskit::Error& error, const std::string& name);
    /// Parks the hidden files that `wanted(removal)` chooses. Of several errors it answers one that
    /// is no lack of room, where there is one.
    template<typename Wanted>
    Outcome<void> parkWhere(Wanted&& wanted);
    /// Logs the first of several failures to park.
    void noteParking(const Outcome<void>& parked);

    VolumeClient& volume_;
    OrphanDirectory parking_;
    mutable Mutex lock_;
    ConditionVariable idle_; // some removal is no longer busy
    std::atomic<size_t> count_{0};
    std::unordered_map<fskit::FSItemID, Removal> removals_ TAVELIN_GUARDED_BY(lock_);
    std::optional<fskit::Error> failure_ TAVELIN_GUARDED_BY(lock_);
    bool parkingFails_ TAVELIN_GUARDED_BY(lock_) = false; // and has been logged
};

} // namespace tavelin::fusehost
