#include "core/reparse_tags.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace tavelin {
namespace {

constexpr std::uint32_t kWhole = 0xffffffff;
constexpr std::uint32_t kAnyVersion = 0xffff0fff; // the fourth digit tells variants apart

constexpr std::string_view kKeepOnDevice =
    "choose \"Always keep on this device\" for it, wait until it is there, and copy it then";
constexpr std::string_view kCopyThere = "copy it to an ordinary directory, and take the copy";

constexpr ReparseTag kUnknown{0, 0, "unknown", "of a kind that is not known here", kCopyThere};

constexpr std::array kTags{
    ReparseTag{0xa0000003, kWhole, "junction", "a junction or a mounted volume", {}},
    ReparseTag{0xa000000c, kWhole, "symlink", "a symbolic link", {}},
    ReparseTag{0xa000001d, kWhole, "wsl-symlink", "a symbolic link of WSL", {}},
    ReparseTag{0xa0000027, kWhole, "container-link", "a link of a Windows container", kCopyThere},
    ReparseTag{0x80000023, kWhole, "socket", "a socket, which has no bytes", {}},
    ReparseTag{0x80000024, kWhole, "wsl-fifo", "a FIFO of WSL, which has no bytes", {}},
    ReparseTag{0x80000025, kWhole, "wsl-char-device", "a device of WSL, which has no bytes", {}},
    ReparseTag{0x80000026, kWhole, "wsl-block-device", "a device of WSL, which has no bytes", {}},
    ReparseTag{0x80000017, kWhole, "system-compressed",
               "compressed by Windows in a way that is not known here, or kept in an image file",
               "run 'compact /u /exe' on it"},
    ReparseTag{0x80000013, kWhole, "deduplicated",
               "deduplicated: its bytes are in the volume's chunk store",
               "run 'Start-DedupJob -Type Unoptimization' on the volume"},
    ReparseTag{0x9000001a, kAnyVersion, "cloud-file",
               "a file that a cloud service such as OneDrive keeps", kKeepOnDevice},
    ReparseTag{0x80000021, kWhole, "onedrive", "a file that OneDrive keeps", kKeepOnDevice},
    ReparseTag{0x80000015, kWhole, "file-placeholder", "a placeholder of a cloud service",
               kKeepOnDevice},
    ReparseTag{0x8000001e, kWhole, "storage-sync", "a file that Azure File Sync keeps",
               "recall it with 'Invoke-StorageSyncFileRecall'"},
    ReparseTag{0xc0000004, kWhole, "hierarchical-storage",
               "a file that was moved to slower storage", kCopyThere},
    ReparseTag{0x80000006, kWhole, "hierarchical-storage",
               "a file that was moved to slower storage", kCopyThere},
    ReparseTag{0x80000007, kWhole, "single-instance", "kept once for several files", kCopyThere},
    ReparseTag{0x80000008, kWhole, "image-file", "kept in an image file", kCopyThere},
    ReparseTag{0x80000009, kWhole, "cluster-volume", "a volume of a cluster", {}},
    ReparseTag{0x8000000a, kWhole, "dfs", "a link of a distributed file system", {}},
    ReparseTag{0x80000012, kWhole, "dfs-replicated", "replicated by a distributed file system",
               kCopyThere},
    ReparseTag{0x80000014, kWhole, "nfs", "a special file of Windows' NFS server", {}},
    ReparseTag{0x80000018, kAnyVersion & ~0x10000000U, "container-layer",
               "a file of a Windows container's lower layer", kCopyThere},
    ReparseTag{0x8000001b,
               kWhole,
               "app-execution-link",
               "a link that starts an application, and has no bytes",
               {}},
    ReparseTag{0x9000001c, kAnyVersion, "projected",
               "a file that a program makes up when it is opened", kCopyThere},
};

} // namespace

const ReparseTag& reparseTag(std::uint32_t tag) noexcept {
    const auto* const found = std::ranges::find_if(
        kTags, [&](const ReparseTag& known) { return (tag & known.mask) == known.tag; });
    return found == kTags.end() ? kUnknown : *found;
}

std::string explainRefusal(NTFSDataState state, std::uint32_t tag) {
    switch (state) {
    case NTFSDataState::here:
    case NTFSDataState::systemCompressed:
        return {};
    case NTFSDataState::encrypted:
        return "it is encrypted by Windows (EFS), under a key of its user's. In Windows, as that "
               "user, run 'cipher /d' on it";
    case NTFSDataState::elsewhere:
        break;
    }
    const ReparseTag& kind = reparseTag(tag);
    std::array<char, sizeof "0x00000000"> digits{};
    static_cast<void>(std::snprintf(digits.data(), digits.size(), "0x%08x", tag));
    std::string text("its bytes are not in it: it is ");
    text.append(kind.meaning).append(" (reparse tag ").append(digits.data()).append(")");
    if (!kind.remedy.empty()) {
        text.append(". In Windows, ").append(kind.remedy);
    }
    return text;
}

} // namespace tavelin
