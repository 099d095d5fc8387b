// Finding names and listing directories.
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/reparse.hpp"
#include "NTFSBridge/volume.hpp"

using namespace ntb;

namespace {

struct listing {
    ntb_dir_callback callback;
    void* context;
    ntfs_inode* directory;
    bool stopped;
};

constexpr int go_on = 0;
constexpr int stop = -1;

// The library's word is good for plain files and directories. All else is looked at as ntb_getattr
// does, so that an item is the same in a listing and for itself.
uint32_t type_of_entry(const listing& list, uint64_t ino, unsigned entry_type) noexcept {
    if (entry_type == NTFS_DT_REG || entry_type == NTFS_DT_DIR || ino == list.directory->mft_no) {
        return entry_type == NTFS_DT_DIR ? NTB_TYPE_DIRECTORY : NTB_TYPE_FILE;
    }
    inode_guard inode;
    if (inode.open(list.directory->vol, ino) != 0) {
        return NTB_TYPE_FILE;
    }
    reparse_point point;
    (void)point.read(inode.get()); // as in ntb_getattr
    uint64_t device = 0;
    return type_of(inode.get(), point, &device);
}

int filler(void* state, const ntfschar* name, const int name_length, const int name_type,
           const s64 /*position*/, const MFT_REF reference, const unsigned entry_type) noexcept {
    auto& list = *static_cast<listing*>(state);
    if (list.stopped) {
        return stop;
    }
    const uint64_t ino = MREF(reference);
    char text[name_buffer_size];
    if (name_type == FILE_NAME_DOS || ino < first_user_ino || !to_utf8(name, name_length, text) ||
        std::strcmp(text, ".") == 0 || std::strcmp(text, "..") == 0) {
        return go_on;
    }
    if (list.callback(list.context, text, ino, MSEQNO(reference),
                      type_of_entry(list, ino, entry_type)) != 0) {
        list.stopped = true;
        return stop;
    }
    return go_on;
}

int32_t parent_of(ntfs_inode* inode, uint64_t& directory) noexcept {
    errno = 0;
    const inode_guard parent(ntfs_dir_parent_inode(inode));
    if (parent.get() == nullptr) {
        return err_or(EIO);
    }
    directory = MK_MREF(parent->mft_no, sequence_of(parent.get()));
    return 0;
}

// ENOENT for a directory that no names lead to from the root: what is below $Extend belongs to the
// system as well, whatever its number.
int32_t check_reachable(ntfs_volume* volume, uint64_t directory) noexcept {
    for (int step = 0; step < directory_depth_max; ++step) {
        if (MREF(directory) == NTB_ROOT_INO) {
            return 0;
        }
        inode_guard inode;
        int32_t error = MREF(directory) < first_user_ino ? ENOENT : inode.open(volume, directory);
        if (error == 0) {
            error = parent_of(inode.get(), directory);
        }
        if (error != 0) {
            return error;
        }
    }
    return ENOENT; // a circle, as on a damaged volume
}

} // namespace

int32_t ntb_lookup(ntb_vol* vol, uint64_t directory, const char* name, uint64_t* ino) {
    inode_guard inode;
    if (const int32_t error = open_directory(vol, directory, inode); error != 0) {
        return error;
    }
    uint64_t found = 0;
    if (const int32_t error = lookup_in(inode.get(), name, found); error != 0) {
        return error;
    }
    if (found < first_user_ino && found != NTB_ROOT_INO) {
        return ENOENT;
    }
    *ino = found;
    return 0;
}

int32_t ntb_lookup_in_any_case(ntb_vol* vol, uint64_t directory, const char* name, uint64_t* ino,
                               char** stored) {
    inode_guard inode;
    if (const int32_t error = open_directory(vol, directory, inode); error != 0) {
        return error;
    }
    utf16_text text;
    if (const int32_t error = uname_of(name, text); error != 0) {
        return error;
    }
    u64 found = 0;
    const auto length = static_cast<size_t>(text.length());
    if (!find_in_any_case(inode.get(), {text.units(), length}, found) ||
        (MREF(found) < first_user_ino && MREF(found) != NTB_ROOT_INO)) {
        return ENOENT;
    }
    *stored = to_utf8(text.units(), text.length()).release();
    *ino = MREF(found);
    return *stored != nullptr ? 0 : ENOMEM;
}

int32_t ntb_readdir(ntb_vol* vol, uint64_t directory, ntb_dir_callback callback, void* context) {
    inode_guard inode;
    if (const int32_t error = open_directory(vol, directory, inode); error != 0) {
        return error;
    }
    listing list = {
        .callback = callback, .context = context, .directory = inode.get(), .stopped = false};
    s64 position = 0;
    errno = 0;
    if (ntfs_readdir(inode.get(), &position, &list, filler) != 0 && !list.stopped) {
        return err_or(EIO);
    }
    return 0;
}

int32_t ntb_parent(ntb_vol* vol, uint64_t ino, uint64_t* directory) {
    if (MREF(ino) < first_user_ino && MREF(ino) != NTB_ROOT_INO) {
        return ENOENT;
    }
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    if (inode->mft_no == NTB_ROOT_INO) { // of which the library knows none
        *directory = MK_MREF(inode->mft_no, sequence_of(inode.get()));
        return 0;
    }
    if (const int32_t error = parent_of(inode.get(), *directory); error != 0) {
        return error;
    }
    return check_reachable(vol->volume, *directory);
}

int32_t ntb_count_names(ntb_vol* vol, uint64_t ino, uint32_t* count) {
    *count = 0;
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    attribute_search search(inode.get());
    while (search.find(AT_FILE_NAME, AT_UNNAMED)) {
        const ATTR_RECORD* const found = search.found();
        const auto* const name = reinterpret_cast<const FILE_NAME_ATTR*>(
            reinterpret_cast<const uint8_t*>(found) + le16_to_cpu(found->value_offset));
        *count += name->file_name_type != FILE_NAME_DOS ? 1 : 0;
    }
    return errno == ENOENT ? 0 : err_or(EIO);
}
