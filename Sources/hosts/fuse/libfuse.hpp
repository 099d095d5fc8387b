/// libfuse's low-level interface, included in one place with the version we are written against.
#pragma once

#define FUSE_USE_VERSION 314
#include <fuse3/fuse_lowlevel.h>

#include <cstddef>
#include <memory>

namespace tavelin::fusehost {

/// Destroys the session and leaves the mount alone: libfuse's own unmount goes by path, which may
/// lead to another mount by now. A mount is taken away by its id, see KernelMount.
struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
using Session = std::unique_ptr<fuse_session, DestroySession>;

/// A session's arguments. libfuse replaces them by its own, which are freed here.
struct Arguments : fuse_args {
    template<std::size_t n>
    explicit Arguments(char* (&words)[n]) : fuse_args(FUSE_ARGS_INIT(n - 1, words)) {}
    ~Arguments() { fuse_opt_free_args(this); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;
};

} // namespace tavelin::fusehost
