/// What libfuse hands back to every callback of one session. It owns nothing: what it names must
/// outlive the session. Any thread may read it, and none changes it.
#pragma once

#include "hosts/fuse/protocol/ownership.hpp"

#include <functional>
#include <string>

namespace tavelin::fusehost {

class KernelChannel;
class MountedVolume;

struct SessionContext {
    /// Sees every request and reply.
    KernelChannel& channel;
    MountedVolume* volume; ///< there before the first request
    /// What the mount says when it is asked for its server, see serverIdentity().
    std::string server;
    /// Whom everything belongs to, as the mount's options say.
    Ownership ownership;
    /// The volume keeps owners and modes itself, and `ownership` is for items without.
    bool keepsOwners;
    bool streams; ///< named streams are offered as extended attributes
    /// The kernel may keep writes back. Until it sends them, it alone knows the size and the times
    /// of a file, and the volume's data is not all there is.
    bool gathersWrites;
    /// No more requests are served, and what runs long should end.
    std::function<bool()> isEnding;
    // Each is called once at most; what it throws ends the process.
    std::function<void()> served;    ///< called once the kernel has begun to send requests
    std::function<void()> unmounted; ///< called when it sends no more, before it is told so
};

} // namespace tavelin::fusehost
