// `tavelin umount`: unmounting and waiting for the server's end.
#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/mount/complaint.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/mount/served_mount.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <cerrno>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

int fail(const fs::path& what, const std::string& why) {
    complain(fmt::format("{}: {}", what.string(), why));
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

std::string reasonOf(int failed) {
    switch (failed) {
    case EBUSY:
        return "a program still uses it, or another mount lies on top of it";
    case EPERM:
    case EACCES:
        return "only root and the user who mounted it may unmount it";
    default:
        return errorText(fromHost(failed));
    }
}

} // namespace

int unmountVolume(const fs::path& given) {
    const fs::path directory = absolutePath(given);
    const std::optional<MountEntry> mount = findMount(directory);
    if (!mount || !isOurs(*mount)) {
        return fail(directory, "no volume is mounted here by tavelin");
    }
    const ServedMount served(*mount);
    // A dead server, or one that does not let this user in, has nothing to write for us.
    const int unwritten = served.synchronize();
    if (unwritten != 0 && unwritten != ENOTCONN && unwritten != EACCES) {
        return fail(directory, fmt::format("cannot write everything back ({}); it stays mounted",
                                           errorText(fromHost(unwritten))));
    }
    if (const int failed = unmount(*mount, false); failed != 0) {
        return fail(directory, reasonOf(failed));
    }
    if (served.isMountedElsewhere() || !served.awaitServer()) {
        return fail(directory, "unmounted here, but the volume is still mounted elsewhere: by a "
                               "bind mount or in another namespace; its image stays in use");
    }
    return 0;
}

} // namespace tavelin::fusehost
