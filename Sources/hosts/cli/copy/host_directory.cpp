#include "hosts/cli/copy/host_directory.hpp"

#include "hosts/cli/failure.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/text.hpp"
#include "platform/file_descriptor.hpp"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

namespace tavelin::cli {

std::vector<std::string> namesIn(int directory, const std::string& path) {
    // closedir() closes its descriptor and the stream moves its offset, so the stream gets one of
    // its own. A duplicate would share the offset.
    const int reading = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(reading < 0 ? nullptr : fdopendir(reading),
                                                     closedir);
    if (!stream) {
        // fdopendir() failed and left the descriptor to us, or there is none.
        const FileDescriptor unused(reading);
        throwHostError(path);
    }
    // readdir() answers null both at the end and on an error; only errno tells them apart.
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* const entry = readdir(stream.get())) { // NOLINT(concurrency-mt-unsafe)
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throwHostError(path);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool staysInside(std::string_view name) noexcept {
    return !name.empty() && name != "." && name != ".." &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

void removeHostTree(const CopyRun& run, int directory, const std::string& name,
                    const std::string& path) {
    throwIfInterrupted();
    struct ::stat status {};
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        run.isImage(status)) {
        throw ItemFailure(escaped(path) + ": this is the image itself, it is not removed");
    }
    if (unlinkat(directory, name.c_str(), 0) == 0) {
        return;
    }
    // EISDIR is Linux's word for a directory, EPERM that of POSIX.
    if (errno != EISDIR && errno != EPERM) {
        throwHostError(path);
    }
    const FileDescriptor inside(
        openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!inside) {
        throwHostError(path);
    }
    for (const std::string& entry : namesIn(inside.get(), path)) {
        removeHostTree(run, inside.get(), entry, joined(path, entry));
    }
    if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0) {
        throwHostError(path);
    }
}

void syncHost(int directory, const std::string& path) {
#ifdef __linux__
    if (syncfs(directory) != 0) {
        throwHostError(path);
    }
#else
    static_cast<void>(directory); // each file was synchronised when it was closed
    static_cast<void>(path);
#endif
}

} // namespace tavelin::cli
