/// What libfuse hands back to every callback of one session.
#pragma once

#include <functional>

namespace tavelin::fusehost {

class KernelChannel;
class MountedVolume;

struct SessionContext {
    KernelChannel& channel;
    MountedVolume& volume;
    std::function<void()> served;    ///< called once the kernel has begun to send requests
    std::function<void()> unmounted; ///< called when it sends no more, before it is told so
};

} // namespace tavelin::fusehost
