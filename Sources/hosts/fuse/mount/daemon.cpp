#include "hosts/fuse/mount/daemon.hpp"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tavelin::fusehost {

Daemon::Daemon(bool foreground) {
    if (foreground) {
        return;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const pid_t child = ::fork();
    if (child == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    side_ = child == 0 ? Side::server : Side::caller;
    pipe_ = std::move(side_ == Side::server ? writing : reading);
    if (side_ == Side::server) {
        ::setsid(); // a fresh child leads no group, so this cannot fail
        nothing_ = FileDescriptor("/dev/null", O_RDWR);
        (void)!::chdir("/"); // so that no directory stays in use; "/" is always there
    }
}

int Daemon::awaitServer() {
    char success = 0;
    // A server that fails has said why and ends without a word on the pipe.
    return pipe_.readSome(&success, 1).bytes == 1 ? 0 : 1;
}

bool Daemon::ready() {
    if (!pipe_) {
        return true;
    }
    const char success = 1;
    const bool awaited = pipe_.write(&success, 1).error == 0;
    pipe_.reset();
    if (nothing_) {
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::dup2(nothing_.get(), standard);
        }
        nothing_.reset();
    }
    return awaited;
}

} // namespace tavelin::fusehost
