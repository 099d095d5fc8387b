/// Dentries that the kernel caches although their names no longer exist, waiting to be invalidated.
///
/// They are mostly long names of files that were removed or renamed by their DOS name. The kernel
/// does not know that the two names belong together. It cannot be told within the request that
/// removes the name, because it holds the directory's lock until that request is answered; so the
/// names are queued here, and MaintenanceThread sends the invalidations. Until it has, the long
/// name still leads the kernel to the file.
///
/// Threading: any thread may call anything; lock_ guards the queue and calls nothing.
#pragma once

#include "platform/file_descriptor.hpp"
#include "platform/mutex.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

/// Whether a name may be a DOS name (8.3), such as LETTER~1.TXT. Never false for one that is.
bool mayBeDosName(std::string_view name) noexcept;

class DentryInvalidationQueue {
  public:
    /// A dentry of the kernel: a name in a directory that it knows.
    struct Name {
        uint64_t directory; ///< its node number
        std::string name;
    };

    DentryInvalidationQueue(); ///< Throws std::system_error.

    /// Queues a name; descriptor() is readable from then on.
    void add(uint64_t directory, std::string_view name);
    /// Empties the queue.
    std::vector<Name> take();
    /// Readable while the queue is not empty. For poll() only; owned by this object.
    int descriptor() const noexcept { return event_.get(); }

  private:
    const FileDescriptor event_; // an eventfd
    Mutex lock_;
    std::vector<Name> names_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
