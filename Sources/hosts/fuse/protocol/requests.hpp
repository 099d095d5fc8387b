/// The kernel's requests: each callback takes its arguments from libfuse, asks the MountedVolume,
/// and replies exactly once. No exception leaves a callback.
#pragma once

#include "hosts/fuse/libfuse.hpp"
#include "hosts/fuse/protocol/session_context.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"

#include <sys/stat.h>

namespace tavelin::fusehost {

/// Every request that is served; the session's user data must be a SessionContext.
const fuse_lowlevel_ops& requestTable();

// ---- What the callbacks share ------------------------------------------------------------------

/// The kernel may keep what it was told for so long: nobody else changes the volume.
inline constexpr double kForever = 365.0 * 24 * 3600; // seconds
inline constexpr size_t kTransferBytesMax = 1 << 20;  // bytes

/// What the session was made with. References are valid as long as the session.
const SessionContext& contextOf(fuse_req_t request);
MountedVolume& volumeOf(fuse_req_t request);
/// The item of a node, for requests that go to the volume as they are.
const ItemRef& itemOf(fuse_req_t request, fuse_ino_t number);
/// What programs are told as an item's inode number: that of its file record.
ino_t inodeNumber(fskit::FSItemID id) noexcept;
/// The errno that the kernel is answered: that of a POSIX error, else EIO.
int hostError(const fskit::Error& error);
/// What the request's program is told of an item: the volume's attributes, the mount's owners.
struct stat statusOf(fuse_req_t request, const fskit::FSItemAttributes& attributes);
/// What a new item in a directory is to have: where the volume keeps owners, the program's user and
/// group and the mode that it asked for, else nothing.
fskit::FSItemSetAttributesRequest attributesOfNew(fuse_req_t request, const Node& directory,
                                                  mode_t mode, dev_t device = 0);
/// How long the kernel may remember what a name stands for, or that it stands for nothing.
double entryTimeout(fuse_req_t request, std::string_view name);
/// An entry in the form in which libfuse replies with it.
fuse_entry_param entryParameters(fuse_req_t request, const Entry& entry, std::string_view name);

/// Replies with an entry; takes the count back when the kernel no longer waits for it.
void replyEntry(fuse_req_t request, const Outcome<Entry>& entry, std::string_view name);
/// Replies with success, or with the error.
void replyResult(fuse_req_t request, const Outcome<void>& result);

/// Replies with the error that the exception in flight stands for; for a catch clause only.
void replyException(fuse_req_t request) noexcept;

/// Runs a callback's work; what is thrown becomes the reply. The work replies last, so that
/// nothing can be thrown after a reply.
template<typename Work>
void answer(fuse_req_t request, Work&& work) noexcept {
    try {
        work();
    } catch (...) {
        replyException(request);
    }
}

/// Enter the callbacks of one subject in the table.
void addNameRequests(fuse_lowlevel_ops& table);
void addDirectoryRequests(fuse_lowlevel_ops& table);
void addDataRequests(fuse_lowlevel_ops& table);
void addXattrRequests(fuse_lowlevel_ops& table);

} // namespace tavelin::fusehost
