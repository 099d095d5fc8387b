/// Small decisions of the front end that need no platform: what mount and check arguments mean,
/// when a refused mount is tried again read-only, how inode numbers, modes and the volume's
/// identifier look to the host, and the directory listing kept for one enumeration.
///
/// Everything here is pure and may be called from any thread.
#pragma once

#include "core/ntfs_error.hpp"
#include "core/ntfs_volume.hpp"
#include "core/values.hpp"
#include "platform/error_numbers.hpp"
#include "platform/information_dictionary.hpp"
#include "platform/product.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tavelin::Driver2 {

/// The file system's short name and the default personality word.
inline constexpr std::string_view kShortName = product::kShortName;
/// The bundle identifier of the file-system extension.
inline constexpr std::string_view kExtensionBundleID = product::kExtensionBundleID;

/// What a mount's arguments ask for. "-r", "--rdonly", "ro" and "rdonly" ask for read-only; "-o"
/// takes a list separated by commas, as its next argument or attached, of "ro", "rdonly" and
/// "windows_names". Options only switch on; anything else is ignored.
struct MountOptions {
    MountOptions() = default;
    explicit MountOptions(std::span<const std::string> arguments);

    bool readOnly = false;
    bool windowsNames = false; ///< refuse names that Windows cannot represent

    bool operator==(const MountOptions&) const = default;
};

enum class CheckMode : std::int32_t {
    quick = 0,
    verify = 1,
    repair = 2,
};

/// The mode that a check's arguments ask for: "-q" quick (also without any), "-n" verify, "-y"
/// repair; the strongest wins. Throws NTFSError kEINVAL for any other argument.
[[nodiscard]] CheckMode checkMode(std::span<const std::string> arguments);

/// Why a check cannot run: kENOTSUP for a repair, kENXIO for a volume that is not loaded.
[[nodiscard]] std::optional<std::int32_t> checkError(CheckMode mode, bool volumeLoaded) noexcept;

/// A short stable name for the error of a mount: kEPERM "hibernated_or_fast_startup", kEIO
/// "io_error", kEINVAL "not_ntfs", kENOSPC "no_space", kEROFS "read_only", others "errno_<code>".
[[nodiscard]] std::string describe(std::int32_t code);

template<typename T>
struct Opened {
    T value;
    bool fellBack = false; ///< opened read-only although read-write was asked for
};

/// Calls open(readOnly). When a read-write open is refused because the volume is write-protected
/// (kEROFS), hibernated or fast-started (kEPERM), tries once more read-only. Throws what the last
/// attempt threw.
template<typename Open>
[[nodiscard]] Opened<std::invoke_result_t<Open&, bool>> openWithReadOnlyFallback(bool readOnly,
                                                                                 Open&& open) {
    try {
        return {std::invoke(open, readOnly), false};
    } catch (const NTFSError& error) {
        if (readOnly || (error.code != kEROFS && error.code != kEPERM)) {
            throw;
        }
    }
    return {std::invoke(open, true), true};
}

/// The host's identifier of an item: its inode number, except that the root directory is 2. Inode
/// 2 is a system file that is never an item, so the two mappings are inverse.
inline constexpr std::uint64_t kRootItemID = 2;
[[nodiscard]] constexpr std::uint64_t itemID(std::uint64_t ino) noexcept {
    return ino == NTFSVolume::kRootIno ? kRootItemID : ino;
}
[[nodiscard]] constexpr std::uint64_t ino(std::uint64_t itemID) noexcept {
    return itemID == kRootItemID ? NTFSVolume::kRootIno : itemID;
}

/// Type and permission bits of an item. NTFS has no POSIX permissions: everybody may do everything.
[[nodiscard]] std::uint32_t mode(NTFSItemType type) noexcept;

using UUID = std::array<std::uint8_t, 16>;

/// The identifier of the volume with this serial number: "TAVELIN1", then the serial, least
/// significant byte first, marked as version 5 of the RFC 4122 variant. The same volume always gets
/// the same one, and hosts recognise it by that.
[[nodiscard]] UUID volumeUUID(std::uint64_t serial) noexcept;

/// One listing of a directory, kept while a host reads it in pages. Immutable once built and
/// shared by reference. Positions count entries from 0; the cookie after an entry is its position
/// plus one.
class DirectorySnapshot {
  public:
    DirectorySnapshot(std::vector<NTFSDirEntry> listing, std::uint64_t generation)
        : entries(std::move(listing)), verifier(generation) {}

    const std::vector<NTFSDirEntry> entries; ///< in the order of NTFSVolume::list
    const std::uint64_t verifier; ///< the volume's change generation when the list was taken

    /// The entries from `position` on, none past the end. Valid while the snapshot lives.
    [[nodiscard]] std::span<const NTFSDirEntry> page(std::uint64_t position) const noexcept;

    /// `position` + 1; a negative or overflowing position stops the process.
    [[nodiscard]] static std::uint64_t cookie(std::int64_t position) noexcept;
};

/// Whether a synchronise request with these FSKit flags must flush: all do but no-wait (2) and
/// delayed wait (4).
[[nodiscard]] bool syncMustFlush(std::int64_t rawFlags) noexcept;

/// "FSShortName" in "EXAppExtensionAttributes" of an information dictionary; kShortName where that
/// is absent, empty or not text.
[[nodiscard]] std::string shortName(const InformationDictionary* info);

} // namespace tavelin::Driver2
