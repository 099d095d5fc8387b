/// How the volume of macOS 27.0 and later answers: the results of that release, and the scope that
/// orders them.
#pragma once

#import <FSKit/FSKit.h>

#if __MAC_OS_X_VERSION_MAX_ALLOWED >= 270000

#include "extension/reply.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <cstdint>

namespace tavelin {

/// FSKit takes the attributes that were filled in last for the newest, whatever is replied first.
/// Under this lock a request is carried out and its attributes are filled in, so that the two
/// orders are the same. The reply comes after it: it may call back into the volume.
struct AnswerOrder {
    Mutex lock TAVELIN_ACQUIRED_BEFORE(lock_order::maintenance);
};

/// serve() for a request whose answer carries attributes.
template<typename... Arguments, typename Request>
void serveInOrder(AnswerOrder& order, void (^reply)(Arguments...),
                  const Request& request) noexcept {
    serve(reply, [&] {
        const MutexLock held(order.lock);
        return argumentsOf<Arguments...>(request());
    });
}

/// The arguments of a reply from a result that was just made. FSKit makes none where something
/// required is missing, as when a file could not be read after its change: EIO.
template<typename Result>
std::tuple<Result*, NSError*> given(Result* result) {
    return {made(result), result != nil ? nil : fs_errorForPOSIXError(kEIO)};
}

/// The free space of an answer, in bytes.
[[nodiscard]] inline FSFreeSpace* freeSpace(std::uint64_t bytes) API_AVAILABLE(macos(27.0)) {
    FSFreeSpace* space = made([[FSFreeSpace alloc] init]);
    [space populateWithBytes:bytes];
    return space;
}

/// The same for an answer that says nothing of it. Nil where the volume does not tell: FSKit asks
/// for the statistics then.
[[nodiscard]] inline FSFreeSpace* freeSpaceOf(TavelinVolume& volume) API_AVAILABLE(macos(27.0)) {
    const fskit::FSStatFSResult now = volume.volumeStatistics();
    return now.totalBytes != 0 ? freeSpace(now.freeBytes) : nil;
}

} // namespace tavelin

#endif
