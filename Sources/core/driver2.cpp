#include "core/driver2.hpp"

#include "platform/checked.hpp"

#include <algorithm>
#include <sys/stat.h>

namespace tavelin::Driver2 {

namespace {

constexpr std::string_view kOptionFlag = "-o";

// The low bits of FSKit's synchronise flags.
constexpr std::int64_t kSyncKindMask = 7;
constexpr std::int64_t kSyncNoWait = 2;
constexpr std::int64_t kSyncDelayedWait = 4;

bool asksForReadOnly(std::string_view word) noexcept {
    return word == "ro" || word == "rdonly";
}

void applyList(MountOptions& options, std::string_view list) noexcept {
    while (!list.empty()) {
        const std::size_t comma = list.find(',');
        const std::string_view piece = list.substr(0, comma);
        list = comma == std::string_view::npos ? std::string_view{} : list.substr(comma + 1);
        if (asksForReadOnly(piece)) {
            options.readOnly = true;
        } else if (piece == "windows_names") {
            options.windowsNames = true;
        }
    }
}

} // namespace

MountOptions::MountOptions(std::span<const std::string> arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == kOptionFlag && i + 1 < arguments.size()) {
            applyList(*this, arguments[++i]);
        } else if (argument.starts_with(kOptionFlag)) {
            applyList(*this, argument.substr(kOptionFlag.size()));
        } else if (argument == "-r" || argument == "--rdonly" || asksForReadOnly(argument)) {
            readOnly = true;
        }
    }
}

CheckMode checkMode(std::span<const std::string> arguments) {
    CheckMode mode = CheckMode::quick;
    for (const std::string& argument : arguments) {
        if (argument == "-n") {
            mode = std::max(mode, CheckMode::verify);
        } else if (argument == "-y") {
            mode = CheckMode::repair;
        } else if (argument != "-q") {
            throw NTFSError(kEINVAL);
        }
    }
    return mode;
}

std::optional<std::int32_t> checkError(CheckMode mode, bool volumeLoaded) noexcept {
    if (mode == CheckMode::repair) {
        return kENOTSUP;
    }
    return volumeLoaded ? std::nullopt : std::optional(kENXIO);
}

std::string describe(std::int32_t code) {
    switch (code) {
    case kEPERM:
        return "hibernated_or_fast_startup";
    case kEIO:
        return "io_error";
    case kEINVAL:
        return "not_ntfs";
    case kENOSPC:
        return "no_space";
    case kEROFS:
        return "read_only";
    default:
        return "errno_" + std::to_string(code);
    }
}

std::uint32_t mode(NTFSItemType type) noexcept {
    switch (type) {
    case NTFSItemType::directory:
        return S_IFDIR | 0777u;
    case NTFSItemType::symlink:
        return S_IFLNK | 0777u;
    case NTFSItemType::fifo:
        return S_IFIFO | 0666u;
    case NTFSItemType::charDevice:
        return S_IFCHR | 0666u;
    case NTFSItemType::blockDevice:
        return S_IFBLK | 0666u;
    case NTFSItemType::socket:
        return S_IFSOCK | 0666u;
    case NTFSItemType::file:
        break;
    }
    return S_IFREG | 0666u;
}

UUID volumeUUID(std::uint64_t serial) noexcept {
    UUID uuid{'T', 'A', 'V', 'E', 'L', 'I', 'N', '1'};
    for (std::size_t i = 0; i < 8; ++i) {
        uuid[8 + i] = static_cast<std::uint8_t>(serial >> (8 * i));
    }
    uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x50);
    uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80);
    return uuid;
}

std::span<const NTFSDirEntry> DirectorySnapshot::page(std::uint64_t position) const noexcept {
    const std::span<const NTFSDirEntry> all(entries);
    return all.subspan(static_cast<std::size_t>(std::min<std::uint64_t>(position, all.size())));
}

std::uint64_t DirectorySnapshot::cookie(std::int64_t position) noexcept {
    if (position < 0) {
        fatal("a directory position was negative");
    }
    return static_cast<std::uint64_t>(
        checkedAdd<std::int64_t>(position, 1, "a directory position overflowed"));
}

bool syncMustFlush(std::int64_t rawFlags) noexcept {
    const std::int64_t kind = rawFlags & kSyncKindMask;
    return kind != kSyncNoWait && kind != kSyncDelayedWait;
}

std::string shortName(const InformationDictionary* info) {
    if (info != nullptr) {
        const auto name = informationText(*info, {"EXAppExtensionAttributes", "FSShortName"});
        if (name && !name->empty()) {
            return *name;
        }
    }
    return std::string(kShortName);
}

} // namespace tavelin::Driver2
