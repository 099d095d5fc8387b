/// The hidden directory in a volume's root where removed files wait for their last close, when they
/// cannot wait under their old names. Users do not see it. What is in it is removed when its user
/// lets go of it, at unmount, and when a volume is mounted again after a crash.
///
/// Any thread may call anything. Errors are the volume's, in macOS numbers.
#pragma once

#include "hosting/volume_client.hpp"
#include "platform/mutex.hpp"

#include <cstdint>
#include <string>
#include <string_view>

namespace tavelin::fusehost {

class OrphanDirectory {
  public:
    static constexpr std::string_view kName = ".tavelin-removed";

    /// The volume must outlive this.
    explicit OrphanDirectory(VolumeClient& volume) : volume_(volume) {}
    OrphanDirectory(const OrphanDirectory&) = delete;
    OrphanDirectory& operator=(const OrphanDirectory&) = delete;

    /// The name of a file in it.
    static std::string nameOf(fskit::FSItemID id);

    /// The directory, found or made.
    Outcome<ItemRef> open();
    /// Removes the directory where it was opened: for unmounting, when nothing of ours is in it.
    Outcome<void> remove();
    /// Removes what a crash left in it, and leaves alone what is not of this host's making. Errors
    /// are logged: they keep nobody from using the volume.
    void cleanUp();

  private:
    Outcome<void> empty(const ItemRef& directory);
    Outcome<void> removeFrom(const ItemRef& parent, std::string_view name);

    VolumeClient& volume_;
    Mutex lock_; // held while the directory is found, made or removed
    ItemRef directory_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
