// Owners of what libntfs-3g hands out. Each closes or frees by leaving scope, dropping the result:
// paths that must report a failing close call close() first.
#pragma once

#include "NTFSBridge/errors.hpp"
#include "NTFSBridge/library.hpp"

namespace ntb {

struct c_free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

// Text and buffers that the library, or the bridge for its caller, allocated with malloc.
using c_string = std::unique_ptr<char, c_free>;
using c_bytes = std::unique_ptr<uint8_t, c_free>;

// An open inode. One record must never be open twice at a time: the two would overwrite each
// other's changes.
class inode_guard {
  public:
    inode_guard() noexcept = default;
    // Takes over an inode that the library has opened; null is fine.
    explicit inode_guard(ntfs_inode* inode) noexcept : inode_(inode) {}
    // Move-only: two owners would close the inode twice.
    inode_guard(inode_guard&& other) noexcept : inode_(other.release()) {}
    // Closes what it owned before, so that no record is open twice by accident.
    inode_guard& operator=(inode_guard&& other) noexcept {
        if (this != &other) {
            (void)close();
            inode_ = other.release();
        }
        return *this;
    }
    ~inode_guard() { (void)close(); }

    // errno, or ENOENT where the library set none. ESTALE when `reference` has a sequence number
    // and the record is free or has another one. This is the only place that checks it.
    [[nodiscard]] int32_t open(ntfs_volume* volume, uint64_t reference) noexcept;

    // Writes the record if it changed and closes; errno or EIO. The inode is gone in any case.
    int32_t close() noexcept;

    // As close(), for an inode whose directory is open too: its index entries are updated through
    // that opening instead of a second one.
    int32_t close_in(ntfs_inode* directory) noexcept;

    // Null when nothing is open. The guard stays the owner.
    ntfs_inode* get() const noexcept { return inode_; }
    ntfs_inode* operator->() const noexcept { return inode_; }
    // Whether an inode is open.
    explicit operator bool() const noexcept { return inode_ != nullptr; }
    // For library calls that close the inode themselves, on success and on failure.
    ntfs_inode* release() noexcept { return std::exchange(inode_, nullptr); }

  private:
    ntfs_inode* inode_ = nullptr;
};

struct attribute_close {
    void operator()(ntfs_attr* attribute) const noexcept { ntfs_attr_close(attribute); }
};

// An open attribute; declared after the inode it belongs to, so that it closes first.
using attribute_guard = std::unique_ptr<ntfs_attr, attribute_close>;

// A search of an inode's attributes, begun as ntfs_attr_get_search_ctx() begins it, but in place:
// the library allocates memory for each. It refers to the inode's memory, so it is declared after
// the inode's guard.
class attribute_search {
  public:
    explicit attribute_search(ntfs_inode* inode) noexcept {
        state_.mrec = inode->mrec;
        state_.attr = reinterpret_cast<ATTR_RECORD*>(reinterpret_cast<uint8_t*>(inode->mrec) +
                                                     le16_to_cpu(inode->mrec->attrs_offset));
        state_.is_first = TRUE;
        state_.ntfs_ino = inode;
    }
    attribute_search(const attribute_search&) = delete;
    attribute_search& operator=(const attribute_search&) = delete;

    // Goes on to the next attribute of the type and name, and says whether there is one. A null
    // name stands for any, AT_UNNAMED for none. If not, errno is ENOENT or says what failed.
    bool find(ATTR_TYPES type, ntfschar* name, uint32_t name_length = 0) noexcept {
        errno = 0;
        return ntfs_attr_lookup(type, name, name_length, CASE_SENSITIVE, 0, nullptr, 0, &state_) ==
               0;
    }

    // What was found, and the inode, base or extension, that has it.
    ATTR_RECORD* found() const noexcept { return state_.attr; }
    ntfs_inode* holder() const noexcept { return state_.ntfs_ino; }

  private:
    ntfs_attr_search_ctx state_ = {};
};

// The flags of a file and of its record, as they are on the volume: on a damaged one also bits that
// the library's enumerations do not have.
inline uint32_t file_flags(const ntfs_inode* inode) noexcept {
    uint32_t flags = 0;
    std::memcpy(&flags, &inode->flags, sizeof flags);
    return flags;
}

inline uint16_t record_flags(const ntfs_inode* inode) noexcept {
    uint16_t flags = 0;
    std::memcpy(&flags, &inode->mrec->flags, sizeof flags);
    return flags;
}

// The record's sequence number, which changes each time the record is freed.
inline uint16_t sequence_of(const ntfs_inode* inode) noexcept {
    return le16_to_cpu(inode->mrec->sequence_number);
}

// By the record, which decides in the library as well, and not by the copy of the flag in the
// directory's entry.
inline bool is_directory(const ntfs_inode* inode) noexcept {
    return (record_flags(inode) & MFT_RECORD_IS_DIRECTORY) != 0;
}

// By the flag alone. Whether there is a $REPARSE_POINT attribute is for reparse_point::read to say.
inline bool is_reparse_point(const ntfs_inode* inode) noexcept {
    return (file_flags(inode) & FILE_ATTR_REPARSE_POINT) != 0;
}

// Whether there are changes of the record, or of one that continues it, that were not written yet.
inline bool is_dirty(const ntfs_inode* inode) noexcept {
    return NInoDirty(inode) || NInoAttrListDirty(inode);
}

// Changes the inode in memory only: the caller marks it dirty, and its close writes it.
inline void set_flag(ntfs_inode* inode, FILE_ATTR_FLAGS flag, bool on) noexcept {
    const uint32_t bit = flag;
    const uint32_t flags = on ? file_flags(inode) | bit : file_flags(inode) & ~bit;
    std::memcpy(&inode->flags, &flags, sizeof flags);
}

// The unnamed data stream, null with errno when there is none or it cannot be opened.
inline attribute_guard open_unnamed_data(ntfs_inode* inode) noexcept {
    return attribute_guard(ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0));
}

// Bytes that a stream takes up on the volume, of one with holes without these.
inline s64 allocated_size_of(const ntfs_attr* data) noexcept {
    const bool has_holes = (data->data_flags & (ATTR_COMPRESSION_MASK | ATTR_IS_SPARSE)) != 0;
    return has_holes ? data->compressed_size : data->allocated_size;
}

} // namespace ntb
