// Loaded into the driver before its libraries: notes every write to one image, and every flush of
// it, in a log that driver_recording.cpp reads.
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

template<typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool isImage(int descriptor) {
    const char* const image = std::getenv("TAVELIN_RECORDED_IMAGE");
    struct stat wanted {};
    struct stat found {};
    return image != nullptr && ::stat(image, &wanted) == 0 && ::fstat(descriptor, &found) == 0 &&
           wanted.st_ino == found.st_ino && wanted.st_dev == found.st_dev;
}

void put(int log, const void* bytes, std::size_t count) {
    if (next<decltype(::write)>("write")(log, bytes, count) != static_cast<ssize_t>(count)) {
        std::abort(); // a recording with a hole would prove nothing
    }
}

// One event: offset and length in the host's byte order, then the bytes; a flush has length 0.
void note(std::uint64_t offset, const void* bytes, std::uint64_t length) {
    static const int log =
        ::open(std::getenv("TAVELIN_RECORDING"), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    put(log, &offset, sizeof offset);
    put(log, &length, sizeof length);
    if (length > 0) {
        put(log, bytes, length);
    }
}

} // namespace

extern "C" {

ssize_t pwrite(int descriptor, const void* bytes, std::size_t count, off_t offset) {
    const ssize_t done = next<decltype(::pwrite)>("pwrite")(descriptor, bytes, count, offset);
    if (done > 0 && isImage(descriptor)) {
        note(static_cast<std::uint64_t>(offset), bytes, static_cast<std::uint64_t>(done));
    }
    return done;
}

ssize_t pwrite64(int descriptor, const void* bytes, std::size_t count, off64_t offset) {
    return pwrite(descriptor, bytes, count, offset);
}

int fsync(int descriptor) {
    const int result = next<decltype(::fsync)>("fsync")(descriptor);
    if (result == 0 && isImage(descriptor)) {
        note(0, nullptr, 0);
    }
    return result;
}

int fdatasync(int descriptor) {
    return fsync(descriptor);
}
}
