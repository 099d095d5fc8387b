/// libfuse's low-level interface, included in one place with the version we are written against.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include <memory>

namespace tavelin::fusehost {

/// Destroys the session and leaves the mount alone: libfuse's own unmount goes by path, which may
/// lead to another mount by now. A mount is taken away by its id, see KernelMount.
struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
using Session = std::unique_ptr<fuse_session, DestroySession>;

} // namespace tavelin::fusehost
