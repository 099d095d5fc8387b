#include "hosts/fuse/mount/daemon.hpp"

#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::fusehost {

Daemon::Daemon(bool foreground) {
    if (foreground) {
        return;
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t child = ::fork();
    if (child == -1) {
        const int failed = errno;
        ::close(ends[0]);
        ::close(ends[1]);
        throw std::system_error(failed, std::generic_category(), "fork");
    }
    side_ = child == 0 ? Side::server : Side::caller;
    pipe_ = ends[side_ == Side::server ? 1 : 0];
    ::close(ends[side_ == Side::server ? 0 : 1]);
    if (side_ == Side::server) {
        ::setsid(); // a fresh child leads no group, so this cannot fail
    }
}

Daemon::~Daemon() {
    if (pipe_ != -1) {
        ::close(pipe_);
    }
}

int Daemon::awaitServer() {
    char success = 0;
    ssize_t got = 0;
    do {
        got = ::read(pipe_, &success, 1);
    } while (got == -1 && errno == EINTR);
    // A server that fails has said why and ends without a word on the pipe.
    return got == 1 ? 0 : 1;
}

void Daemon::ready() {
    if (pipe_ == -1) {
        return;
    }
    const char success = 1;
    (void)!::write(pipe_, &success, 1); // a caller that is gone needs no answer
    ::close(pipe_);
    pipe_ = -1;
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing != -1) {
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            ::dup2(nothing, standard);
        }
        ::close(nothing);
    }
    (void)!::chdir("/"); // so that no directory stays in use; "/" is always there
}

} // namespace tavelin::fusehost
