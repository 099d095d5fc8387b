/// Names that the kernel remembers although they stand for nothing any more: above all long names
/// of files that were removed or renamed by their short alias. The kernel does not know that the
/// two belong together and has to be told, but not by the request itself: it holds the directory
/// meanwhile. So for a moment after the request the long name leads the kernel to the file that
/// had it.
///
/// Any thread may call anything.
#pragma once

#include "platform/mutex.hpp"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

/// Whether a name may be a short alias, such as LETTER~1.TXT.
bool mayBeDosName(std::string_view name) noexcept;

class DentryInvalidationQueue {
  public:
    struct Name {
        uint64_t directory; ///< the kernel's number of it
        std::string name;
    };

    DentryInvalidationQueue(); ///< Throws std::system_error.
    ~DentryInvalidationQueue();
    DentryInvalidationQueue(const DentryInvalidationQueue&) = delete;
    DentryInvalidationQueue& operator=(const DentryInvalidationQueue&) = delete;

    void add(uint64_t directory, std::string_view name);
    std::vector<Name> take();
    /// A descriptor that can be read (only for poll) as long as there are names to take.
    int descriptor() const noexcept { return event_; }

  private:
    const int event_;
    Mutex lock_;
    std::vector<Name> names_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
