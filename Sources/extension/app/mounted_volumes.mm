#include "extension/app/mounted_volumes.hpp"

#include "platform/product.hpp"

#include <cstdint>
#include <cstdio>
#include <string_view>
#include <sys/mount.h>
#include <sys/param.h>

namespace tavelin {

namespace {

std::string gigabytes(std::uint64_t blocks, std::uint32_t blockSize) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f",
                  static_cast<double>(blocks) * static_cast<double>(blockSize) / 1e9);
    return text;
}

std::string describe(const struct statfs &volume) {
    std::string line = volume.f_mntonname;
    line += " (" + std::string(volume.f_mntfromname) + "): ";
    line += (volume.f_flags & MNT_RDONLY) != 0 ? "read-only, " : "read and write, ";
    line += gigabytes(volume.f_bavail, volume.f_bsize) + " of " +
            gigabytes(volume.f_blocks, volume.f_bsize) + " GB free";
    return line;
}

} // namespace

std::vector<std::string> describeMountedVolumes() {
    struct statfs *volumes = nullptr;
    // The array belongs to the system library, which reuses it at the next call.
    const int count = getmntinfo(&volumes, MNT_NOWAIT);
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        if (std::string_view(volumes[i].f_fstypename) == product::kShortName) {
            lines.push_back(describe(volumes[i]));
        }
    }
    return lines;
}

} // namespace tavelin
