/// Items, their attributes, and the requests that read and change them.
///
/// Numbers are FSKit's: they are what the binding passes through.
#pragma once

#include <cstdint>
#include <ctime>

namespace fskit {

/// The kinds of items that a kernel tells apart.
enum class FSItemType : std::int64_t {
    unknown = 0,
    file = 1,
    directory = 2,
    symlink = 3,
    fifo = 4,
    charDevice = 5,
    blockDevice = 6,
    socket = 7,
};

/// Any other 64-bit number names an item too.
using FSItemID = std::uint64_t;
/// No item.
inline constexpr FSItemID FSItemIDInvalid = 0;
/// What the root's parent is called; no item has this number.
inline constexpr FSItemID FSItemIDParentOfRoot = 1;
/// The root directory of every volume.
inline constexpr FSItemID FSItemIDRootDirectory = 2;

/// A set of FSItemAttribute bits.
using FSItemAttributeSet = std::uint64_t;

/// The bits of a set.
namespace FSItemAttribute {
/// Always valid on an item that a volume describes.
inline constexpr FSItemAttributeSet type = 1u << 0;
/// The file type is in it as well, as in st_mode.
inline constexpr FSItemAttributeSet mode = 1u << 1;
/// A DOS name counts as one of its own.
inline constexpr FSItemAttributeSet linkCount = 1u << 2;
/// Accepted when set and not kept: NTFS has other owners.
inline constexpr FSItemAttributeSet uid = 1u << 3;
/// As for uid.
inline constexpr FSItemAttributeSet gid = 1u << 4;
/// The flags of chflags(2), of which volumes of ours keep kHiddenFlag alone.
inline constexpr FSItemAttributeSet flags = 1u << 5;
/// Setting it truncates or extends a file.
inline constexpr FSItemAttributeSet size = 1u << 6;
/// Set by the volume alone.
inline constexpr FSItemAttributeSet allocSize = 1u << 7;
/// The item's number, set by the volume alone.
inline constexpr FSItemAttributeSet fileID = 1u << 8;
/// The directory that the item was last reached through: a file with several names has several.
inline constexpr FSItemAttributeSet parentID = 1u << 9;
inline constexpr FSItemAttributeSet accessTime = 1u << 10;
inline constexpr FSItemAttributeSet modifyTime = 1u << 11;
/// The last change of the item's own record, not only of its data.
inline constexpr FSItemAttributeSet changeTime = 1u << 12;
inline constexpr FSItemAttributeSet birthTime = 1u << 13;
/// NTFS does not keep it: shown as 0.
inline constexpr FSItemAttributeSet backupTime = 1u << 14;
/// When the item came to its directory. NTFS does not record it, so the creation stands for it.
inline constexpr FSItemAttributeSet addedTime = 1u << 15;
/// This one and the next are FSKit's own. Our volumes answer false for the first and leave the
/// second unset.
inline constexpr FSItemAttributeSet supportsLimitedXAttrs = 1u << 16;
inline constexpr FSItemAttributeSet inhibitKernelOffloadedIO = 1u << 17;
} // namespace FSItemAttribute

/// In an item's flags: kept out of listings by default. UF_HIDDEN of macOS's <sys/stat.h>.
inline constexpr std::uint32_t kHiddenFlag = 0x8000;
/// Flags that forbid changes: UF_IMMUTABLE, UF_APPEND, SF_IMMUTABLE and SF_APPEND of the same.
inline constexpr std::uint32_t kImmutableFlags = 0x2 | 0x4 | 0x20000 | 0x40000;

/// One file-system object, whatever the number of its names: at most one live FSItem per object.
/// Handed out as std::shared_ptr; a volume derives from it for its own state.
class FSItem {
  public:
    FSItem() = default;
    virtual ~FSItem() = default;
    FSItem(const FSItem&) = delete;
    FSItem& operator=(const FSItem&) = delete;

    /// A host's own mark on an item that it was handed. The volume never touches it.
    void* hostData = nullptr;
};

/// Where the bytes of a file are.
enum class FSItemDataState : std::uint8_t {
    here = 0,
    systemCompressed = 1, ///< read and written as usual
    elsewhere = 2,        ///< only Windows, or nobody, finds them: refused
    encrypted = 3,        ///< refused
};

/// Attributes of DOS, in the numbers of Windows: the bits of FSItemNativeAttributes::dosAttributes.
namespace FSItemDOSAttribute {
inline constexpr std::uint32_t readOnly = 0x1;
inline constexpr std::uint32_t hidden = 0x2;
inline constexpr std::uint32_t system = 0x4;
inline constexpr std::uint32_t compressed = 0x800;
} // namespace FSItemDOSAttribute

/// What FSKit has no property for, and hosts beside it can show. No binding passes it on.
struct FSItemNativeAttributes {
    std::uint32_t reparseTag = 0; ///< 0: none
    /// Why a read may be refused although the file has a size.
    FSItemDataState dataState = FSItemDataState::here;
    bool volumeLink = false;  ///< a link whose target is a path from the volume's root
    std::uint64_t device = 0; ///< of a device: its major number << 32 | its minor number
    /// Beside the flags of FSItemAttributes, which have no bit for most of them.
    std::uint32_t dosAttributes = 0; ///< FSItemDOSAttribute bits
    std::uint16_t sequence = 0; ///< of the file record: it changes when the record changes hands
};

/// A value. Setting a property makes it valid; a property that is not valid reads as zero.
class FSItemAttributes {
  public:
    /// Whether all of these were set.
    bool isValid(FSItemAttributeSet attributes) const noexcept {
        return (valid_ & attributes) == attributes;
    }
    /// Everything that was set, one bit each.
    FSItemAttributeSet validAttributes() const noexcept { return valid_; }

    /// The properties. One that was never set answers 0, so ask isValid() first where 0 could be a
    /// value.
    FSItemType type() const noexcept { return type_; }
    std::uint32_t mode() const noexcept { return mode_; }
    std::uint32_t linkCount() const noexcept { return linkCount_; }
    std::uint32_t uid() const noexcept { return uid_; }
    std::uint32_t gid() const noexcept { return gid_; }
    std::uint32_t flags() const noexcept { return flags_; } ///< st_flags: UF_..., SF_...
    /// The logical size; of a link, the length of its target.
    std::uint64_t size() const noexcept { return size_; } ///< bytes
    /// Space on the volume.
    std::uint64_t allocSize() const noexcept { return allocSize_; } ///< bytes
    FSItemID fileID() const noexcept { return fileID_; }
    /// FSItemIDParentOfRoot for the root.
    FSItemID parentID() const noexcept { return parentID_; }
    /// Times count from 1970-01-01 UTC.
    const std::timespec& accessTime() const noexcept { return accessTime_; }
    const std::timespec& modifyTime() const noexcept { return modifyTime_; }
    /// When the attributes last changed; the others are the last read, the last write and the
    /// creation.
    const std::timespec& changeTime() const noexcept { return changeTime_; }
    const std::timespec& birthTime() const noexcept { return birthTime_; }
    const std::timespec& backupTime() const noexcept { return backupTime_; }
    const std::timespec& addedTime() const noexcept { return addedTime_; }
    /// FSKit's property of the same name; false for every item of ours.
    bool supportsLimitedXAttrs() const noexcept { return supportsLimitedXAttrs_; }
    /// FSKit's property of the same name, which our volumes leave unset.
    bool inhibitKernelOffloadedIO() const noexcept { return inhibitKernelOffloadedIO_; }

    /// Always there; its members say themselves when they mean nothing.
    const FSItemNativeAttributes& native() const noexcept { return native_; }
    void setNative(const FSItemNativeAttributes& value) noexcept { native_ = value; }

    /// The setters. Each makes its property valid.
    void setType(FSItemType value) noexcept { set(type_, value, FSItemAttribute::type); }
    void setMode(std::uint32_t value) noexcept { set(mode_, value, FSItemAttribute::mode); }
    void setLinkCount(std::uint32_t value) noexcept {
        set(linkCount_, value, FSItemAttribute::linkCount);
    }
    void setUid(std::uint32_t value) noexcept { set(uid_, value, FSItemAttribute::uid); }
    void setGid(std::uint32_t value) noexcept { set(gid_, value, FSItemAttribute::gid); }
    void setFlags(std::uint32_t value) noexcept { set(flags_, value, FSItemAttribute::flags); }
    void setSize(std::uint64_t value) noexcept { set(size_, value, FSItemAttribute::size); }
    void setAllocSize(std::uint64_t value) noexcept {
        set(allocSize_, value, FSItemAttribute::allocSize);
    }
    void setFileID(FSItemID value) noexcept { set(fileID_, value, FSItemAttribute::fileID); }
    void setParentID(FSItemID value) noexcept { set(parentID_, value, FSItemAttribute::parentID); }
    void setAccessTime(std::timespec value) noexcept {
        set(accessTime_, value, FSItemAttribute::accessTime);
    }
    void setModifyTime(std::timespec value) noexcept {
        set(modifyTime_, value, FSItemAttribute::modifyTime);
    }
    void setChangeTime(std::timespec value) noexcept {
        set(changeTime_, value, FSItemAttribute::changeTime);
    }
    void setBirthTime(std::timespec value) noexcept {
        set(birthTime_, value, FSItemAttribute::birthTime);
    }
    void setBackupTime(std::timespec value) noexcept {
        set(backupTime_, value, FSItemAttribute::backupTime);
    }
    void setAddedTime(std::timespec value) noexcept {
        set(addedTime_, value, FSItemAttribute::addedTime);
    }
    void setSupportsLimitedXAttrs(bool value) noexcept {
        set(supportsLimitedXAttrs_, value, FSItemAttribute::supportsLimitedXAttrs);
    }
    void setInhibitKernelOffloadedIO(bool value) noexcept {
        set(inhibitKernelOffloadedIO_, value, FSItemAttribute::inhibitKernelOffloadedIO);
    }

  private:
    /// Stores a value and marks it valid, so that neither is done without the other.
    template<typename T>
    void set(T& property, T value, FSItemAttributeSet bit) noexcept {
        property = value;
        valid_ |= bit;
    }

    FSItemAttributeSet valid_ = 0;
    FSItemType type_ = FSItemType::unknown;
    std::uint32_t mode_ = 0;
    std::uint32_t linkCount_ = 0;
    std::uint32_t uid_ = 0;
    std::uint32_t gid_ = 0;
    std::uint32_t flags_ = 0;
    bool supportsLimitedXAttrs_ = false;
    bool inhibitKernelOffloadedIO_ = false;
    std::uint64_t size_ = 0;
    std::uint64_t allocSize_ = 0;
    FSItemID fileID_ = FSItemIDInvalid;
    FSItemID parentID_ = FSItemIDInvalid;
    std::timespec accessTime_{};
    std::timespec modifyTime_{};
    std::timespec changeTime_{};
    std::timespec birthTime_{};
    std::timespec backupTime_{};
    std::timespec addedTime_{};
    FSItemNativeAttributes native_;
};

/// The attributes to change are the valid ones; the volume marks those that it applied.
class FSItemSetAttributesRequest : public FSItemAttributes {
  public:
    /// Those that were applied, also when a later one failed.
    FSItemAttributeSet consumedAttributes = 0;
};

/// Which attributes the host will look at. A volume may answer more than these.
struct FSItemGetAttributesRequest {
    FSItemAttributeSet wantedAttributes = 0;
};

} // namespace fskit
