// `tavelin umount`: unmounting and waiting for the server's end.
#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "platform/error_numbers.hpp"
#include "platform/file_descriptor.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

int fail(const fs::path& what, const std::string& why) {
    fmt::print(stderr, "tavelin: {}: {}\n", what.string(), why);
    return 1;
}

// The absolute path as the mount table has it; a directory whose server is dead cannot be resolved.
fs::path absolutePath(const fs::path& directory) {
    std::error_code failed;
    fs::path resolved = fs::canonical(directory, failed);
    if (failed) {
        resolved = fs::absolute(directory).lexically_normal();
        if (!resolved.has_filename()) {
            resolved = resolved.parent_path();
        }
    }
    return resolved;
}

// The image behind the source of a mount, which may be a loop device over it.
fs::path imageOf(const std::string& source) {
    const fs::path path = source;
    std::string image;
    std::error_code unknown;
    if (path.parent_path() == "/dev" && fs::is_block_file(path, unknown)) {
        std::ifstream backing("/sys/block" / path.filename() / "loop/backing_file");
        std::getline(backing, image);
    }
    return image.empty() ? path : fs::path(image);
}

// Asks the server to write everything back; 0 or a host errno.
int synchronize(const fs::path& directory) {
    const FileDescriptor root(directory.c_str(), O_RDONLY | O_DIRECTORY);
    return root && ::fsync(root.get()) == 0 ? 0 : errno;
}

// The server keeps the image locked until it has let go of it.
void awaitServer(int image) {
    struct flock whole {};
    whole.l_type = F_RDLCK;
    whole.l_whence = SEEK_SET;
    // A lock that cannot be had tells nothing; the unmount itself has been done.
    (void)uninterrupted([&] { return ::fcntl(image, F_OFD_SETLKW, &whole); });
}

} // namespace

int unmountVolume(const fs::path& given) {
    const fs::path directory = absolutePath(given);
    const std::optional<MountEntry> mount = findMount(directory);
    if (!mount || !mount->type.ends_with(".tavelin")) {
        return fail(directory, "no volume is mounted here by tavelin");
    }
    const fs::path path = imageOf(mount->source);
    const FileDescriptor image(path.c_str(), O_RDONLY);
    const int closed = image ? 0 : errno;
    if (const int failed = mount->readOnly ? 0 : synchronize(directory);
        failed != 0 && failed != ENOTCONN) {
        return fail(directory, fmt::format("cannot write everything back ({}); it stays mounted",
                                           errorText(fromHost(failed))));
    }
    if (const int failed = unmount(*mount, false); failed != 0) {
        return fail(directory, failed == EBUSY ? std::string("a program still uses it")
                                               : errorText(fromHost(failed)));
    }
    if (closed != 0) {
        return fail(directory, fmt::format("unmounted, but whether its server has ended cannot be "
                                           "seen: {}: {}",
                                           path.string(), errorText(fromHost(closed))));
    }
    if (!mount->readOnly) {
        awaitServer(image.get());
    }
    return 0;
}

} // namespace tavelin::fusehost
