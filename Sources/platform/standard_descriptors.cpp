#include "platform/standard_descriptors.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace tavelin {

bool openStandardDescriptors() noexcept {
    for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
        if (::fcntl(standard, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // The wrong way round on purpose: a program that prints must learn that nobody reads it. An
        // open takes the lowest free number, which is this one.
        const int access = standard == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (::open("/dev/null", access) != standard) { // NOLINT(android-cloexec-open)
            return false;
        }
    }
    return true;
}

} // namespace tavelin
