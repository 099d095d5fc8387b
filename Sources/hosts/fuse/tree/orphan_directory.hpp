/// The hidden directory in a volume's root that keeps orphans: files that were unlinked while open
/// and whose old names could not wait for the last close. Users do not see it. An orphan is removed
/// when the kernel forgets it, at the unmount, or by the next mount after a crash.
///
/// Threading: any thread may call anything. lock_ is held across the calls into the volume that
/// find, make or remove the directory; it comes before the volume's own locks. Errors are the
/// volume's, in macOS numbers.
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
    /// Removes the directory if open() was called, for unmounting. A directory that still has
    /// entries, which are not of this host's making then, stays; that is no error.
    Outcome<void> remove();
    /// Removes the orphans that a crash left in it, and leaves alone every entry that this host did
    /// not make. Errors are logged only: the volume is usable all the same.
    void cleanUp();

  private:
    Outcome<void> empty(const ItemRef& directory);
    Outcome<void> removeFrom(const ItemRef& parent, std::string_view name);

    VolumeClient& volume_;
    Mutex lock_; // held while the directory is found, made or removed
    ItemRef directory_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
