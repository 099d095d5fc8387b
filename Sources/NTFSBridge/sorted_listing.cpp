// Listing a directory by the order of its names, from behind any of them.
//
// The library's own listing shows the root of a directory's index and then its blocks as they lie
// in the file, which is no order once there is more than one. Here the tree is walked as it is
// sorted: a listing of any length begins at once, and goes on behind any name.
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/ondisk/little_endian.hpp"
#include "NTFSBridge/reparse.hpp"
#include "NTFSBridge/volume.hpp"

#include <array>
#include <bit>
#include <new>
#include <span>

using namespace ntb;

namespace {

constexpr int depth_max = 32; // blocks below each other; a tree of 10^9 names has fewer than ten

using byte_span = std::span<const uint8_t>;

// One name of the index, in memory of its own: those on the disk may lie at any byte.
class index_name {
  public:
    void assign(const void* units, size_t length) noexcept {
        length_ = length;
        std::memcpy(units_.data(), units, length * sizeof(ntfschar));
    }
    void copy_to(ntb_position& position) const noexcept {
        position.length = static_cast<uint16_t>(length_);
        std::memcpy(position.name, units_.data(), length_ * sizeof(ntfschar));
    }
    const ntfschar* units() const noexcept { return units_.data(); }
    int length() const noexcept { return static_cast<int>(length_); }

  private:
    std::array<ntfschar, name_units_max> units_;
    size_t length_ = 0;
};

// The value of an attribute; empty where it does not lie inside its record's attribute.
byte_span value_of(const ATTR_RECORD* attribute) noexcept {
    const size_t offset = le16_to_cpu(attribute->value_offset);
    const size_t size = le32_to_cpu(attribute->value_length);
    if (attribute->non_resident != 0 || offset + size > le32_to_cpu(attribute->length)) {
        return {};
    }
    return {reinterpret_cast<const uint8_t*>(attribute) + offset, size};
}

// One entry of a node. What it says lies inside its bytes.
struct index_entry {
    byte_span whole;
    bool has_child = false; // with the names before this one
    bool is_last = false;   // has no name

    static constexpr size_t header = 16;
    static constexpr size_t key_header = offsetof(FILE_NAME_ATTR, file_name);

    uint64_t reference() const noexcept { return u64_at(whole.data(), 0); }
    int64_t child() const noexcept {
        return static_cast<int64_t>(u64_at(whole.data(), whole.size() - 8));
    }
    uint32_t attributes() const noexcept {
        return u32_at(key(), offsetof(FILE_NAME_ATTR, file_attributes));
    }
    uint8_t name_space() const noexcept { return key()[offsetof(FILE_NAME_ATTR, file_name_type)]; }
    void name(index_name& out) const noexcept { out.assign(key() + key_header, name_length()); }

    // Takes the first entry off a node's entries; false when it is none.
    static bool take(byte_span& node, index_entry& out) noexcept {
        if (node.size() < header) {
            return false;
        }
        const size_t length = u16_at(node.data(), 8);
        const uint16_t flags = u16_at(node.data(), 12);
        out.has_child = (flags & 1) != 0;
        out.is_last = (flags & 2) != 0;
        size_t needed = header + (out.has_child ? 8 : 0) + (out.is_last ? 0 : key_header);
        if (length > node.size() || length < needed) {
            return false;
        }
        out.whole = node.first(length);
        if (!out.is_last) {
            needed += out.name_length() * sizeof(ntfschar);
            if (length < needed || out.name_length() == 0) {
                return false;
            }
        }
        node = node.subspan(length);
        return true;
    }

  private:
    const uint8_t* key() const noexcept { return whole.data() + header; }
    size_t name_length() const noexcept {
        return key()[offsetof(FILE_NAME_ATTR, file_name_length)];
    }
};

class sorted_listing {
  public:
    sorted_listing(ntfs_inode* directory, ntb_dir_callback callback, void* context) noexcept
        : directory_(directory), callback_(callback), context_(context) {}

    int32_t list(ntb_position& position) noexcept {
        last_.assign(position.name, std::min<size_t>(position.length, name_units_max));
        const int32_t error = list_root();
        last_.copy_to(position);
        return error;
    }

  private:
    static constexpr size_t root_header = 16;  // bytes before the header of the entries
    static constexpr size_t block_header = 24; // the same in a block
    static constexpr size_t node_header = 16;
    static constexpr uint32_t block_size_max = 64u << 10;

    int32_t list_root() noexcept {
        attribute_search search(directory_);
        if (!search.find(AT_INDEX_ROOT, NTFS_INDEX_I30, 4)) {
            return errno == ENOENT ? EIO : err_or(EIO); // a directory has one
        }
        const byte_span root = value_of(search.found());
        if (root.size() < root_header + node_header) {
            return EIO;
        }
        block_size_ = u32_at(root.data(), 8);
        if (!std::has_single_bit(block_size_) || block_size_ < NTFS_BLOCK_SIZE ||
            block_size_ > block_size_max) {
            return EIO;
        }
        return list_node(root.subspan(root_header), 0);
    }

    // Lists what a node holds behind the last name, with all below it.
    int32_t list_node(byte_span node, int depth) noexcept {
        const size_t begin = u32_at(node.data(), 0);
        const size_t end = u32_at(node.data(), 4);
        if (begin < node_header || begin > end || end > node.size()) {
            return EIO;
        }
        node = node.subspan(begin, end - begin);
        for (index_entry entry; index_entry::take(node, entry);) {
            index_name name;
            if (!entry.is_last) {
                entry.name(name);
                if (!has_begun_ && !is_behind_last(name)) {
                    continue; // and so is all of its child
                }
            }
            const int32_t error = entry.has_child ? list_block(entry.child(), depth + 1) : 0;
            if (error != 0 || is_stopped_ || entry.is_last) {
                return error;
            }
            // One that is out of its place would lead back: a listing must end.
            if (!is_behind_last(name)) {
                return EIO;
            }
            has_begun_ = true;
            report(entry, name);
            last_ = name;
            if (is_stopped_) {
                return 0;
            }
        }
        return EIO; // a node ends with an entry that says so
    }

    int32_t list_block(VCN vcn, int depth) noexcept {
        if (!blocks_) {
            errno = 0;
            blocks_.reset(ntfs_attr_open(directory_, AT_INDEX_ALLOCATION, NTFS_INDEX_I30, 4));
            if (!blocks_) {
                return err_or(EIO);
            }
        }
        // Blocks smaller than a cluster are counted in 512 bytes.
        const ntfs_volume* const volume = directory_->vol;
        const int unit =
            volume->cluster_size <= block_size_ ? volume->cluster_size_bits : NTFS_BLOCK_SIZE_BITS;
        if (depth > depth_max || vcn < 0 || vcn > blocks_->data_size >> unit) {
            return EIO;
        }
        const std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[block_size_]);
        if (!block) {
            return ENOMEM;
        }
        errno = 0;
        if (ntfs_attr_mst_pread(blocks_.get(), vcn << unit, 1, block_size_, block.get()) != 1) {
            return err_or(EIO);
        }
        // A torn block, or one of another index, must not be taken for this one.
        if (u32_at(block.get(), 0) != le32_to_cpu(magic_INDX) ||
            u64_at(block.get(), offsetof(INDEX_BLOCK, index_block_vcn)) !=
                static_cast<uint64_t>(vcn)) {
            return EIO;
        }
        return list_node(byte_span(block.get(), block_size_).subspan(block_header), depth);
    }

    bool is_behind_last(const index_name& name) const noexcept {
        const ntfs_volume* const volume = directory_->vol;
        return last_.length() == 0 ||
               ntfs_names_full_collate(name.units(), static_cast<u32>(name.length()), last_.units(),
                                       static_cast<u32>(last_.length()), CASE_SENSITIVE,
                                       volume->upcase, volume->upcase_len) > 0;
    }

    void report(const index_entry& entry, const index_name& name) noexcept {
        const uint64_t ino = MREF(entry.reference());
        char text[name_buffer_size];
        if (entry.name_space() == FILE_NAME_DOS || ino < first_user_ino ||
            !to_utf8(name.units(), name.length(), text) || std::strcmp(text, ".") == 0 ||
            std::strcmp(text, "..") == 0) {
            return;
        }
        is_stopped_ = callback_(context_, text, ino, MSEQNO(entry.reference()),
                                type_in(entry.attributes(), ino)) != 0;
    }

    // As ntb_getattr says it, of which the entry's copy of the attributes is enough for most.
    uint32_t type_in(uint32_t attributes, uint64_t ino) const noexcept {
        const uint32_t plain = (attributes & le32_to_cpu(FILE_ATTR_I30_INDEX_PRESENT)) != 0
                                   ? NTB_TYPE_DIRECTORY
                                   : NTB_TYPE_FILE;
        constexpr uint32_t special = uint32_t{FILE_ATTR_REPARSE_POINT} | uint32_t{FILE_ATTR_SYSTEM};
        inode_guard inode;
        if ((attributes & le32_to_cpu(special)) == 0 || ino == directory_->mft_no ||
            inode.open(directory_->vol, ino) != 0) {
            return plain;
        }
        reparse_point point;
        (void)point.read(inode.get()); // as in ntb_getattr
        uint64_t device = 0;
        return type_of(inode.get(), point, &device);
    }

    ntfs_inode* const directory_;
    const ntb_dir_callback callback_;
    void* const context_;
    attribute_guard blocks_;
    uint32_t block_size_ = 0;
    index_name last_; // that was passed, or is to be gone on behind; empty before the first one
    bool has_begun_ = false; // a name behind the place to go on from was met
    bool is_stopped_ = false;
};

} // namespace

int32_t ntb_readdir_sorted(ntb_vol* vol, uint64_t directory, ntb_position* position,
                           ntb_dir_callback callback, void* context) {
    inode_guard inode;
    if (const int32_t error = open_directory(vol, directory, inode); error != 0) {
        return error;
    }
    return sorted_listing(inode.get(), callback, context).list(*position);
}

int32_t ntb_short_name(ntb_vol* vol, uint64_t directory, const char* name, char** alias) {
    named_entry entry;
    if (const int32_t error = entry.find(vol, directory, name); error != 0) {
        return error;
    }
    const utf16_text& text = entry.name;
    const uint64_t parent = entry.directory->mft_no;
    inode_guard& inode = entry.directory; // closed before the file's record is opened
    if (const int32_t error = inode.open(vol->volume, entry.ino); error != 0) {
        return error;
    }
    // A file has one alias at most, which goes with its one name in the Win32 namespace.
    c_string found;
    bool is_its_name = false;
    attribute_search search(inode.get());
    while (search.find(AT_FILE_NAME, AT_UNNAMED)) {
        const byte_span value = value_of(search.found());
        const uint8_t* const key = value.data();
        constexpr size_t header = index_entry::key_header;
        if (value.size() < header ||
            value.size() < header + key[offsetof(FILE_NAME_ATTR, file_name_length)] * size_t{2}) {
            return EIO;
        }
        if (MREF(u64_at(key, 0)) != parent) {
            continue;
        }
        index_name each;
        each.assign(key + index_entry::key_header, key[offsetof(FILE_NAME_ATTR, file_name_length)]);
        const uint8_t name_space = key[offsetof(FILE_NAME_ATTR, file_name_type)];
        if (name_space == FILE_NAME_DOS) {
            found = to_utf8(each.units(), each.length());
        }
        is_its_name |= name_space == FILE_NAME_WIN32 && each.length() == text.length() &&
                       std::memcmp(each.units(), text.units(),
                                   static_cast<size_t>(text.length()) * sizeof(ntfschar)) == 0;
    }
    if (errno != ENOENT) {
        return err_or(EIO);
    }
    c_string answer = is_its_name && found ? std::move(found) : copy_for_caller("");
    *alias = answer.release();
    return *alias != nullptr ? 0 : ENOMEM;
}
