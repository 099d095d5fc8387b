// Creating and removing files, directories and symbolic links.
#include "NTFSBridge/namespace.hpp"

#include "NTFSBridge/links.hpp"
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/operation.hpp"
#include "NTFSBridge/wsl_metadata.hpp"

#include <climits>
#ifdef __linux__
#include <sys/sysmacros.h>
#endif

namespace ntb {
namespace {

// A directory that got or lost a name has changed, and so has its record.
void note_change(ntfs_inode* directory) noexcept {
    ntfs_inode_update_times(directory, static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME));
}

// What ntb_create and ntb_symlink need of the place where a new name goes.
struct new_entry {
    inode_guard directory;
    utf16_text name;

    // The name is checked by the caller; here: ENOENT, ENOTDIR, EEXIST or the library's errno.
    [[nodiscard]] int32_t open_directory_at(const ntb_vol* vol, uint64_t parent) noexcept {
        return open_directory(vol, parent, directory);
    }

    [[nodiscard]] int32_t check_absent() const noexcept {
        uint64_t present = 0;
        const int32_t error = lookup_in(directory.get(), name, present);
        if (error == 0) {
            return EEXIST;
        }
        return error == ENOENT ? 0 : error;
    }

    // Stores the owner, if any, and closes the new inode and its directory, in this order: the
    // inode's index entry is updated through the open directory.
    [[nodiscard]] int32_t finish(const ntb_vol* vol, inode_guard created, const ntb_owner* owner,
                                 uint32_t kind, uint64_t* ino) noexcept {
        const bool has_owner = owner != nullptr && owner->given != 0;
        const int32_t refused = has_owner ? write_owner(vol, created.get(), *owner, kind) : 0;
        // Read before the inode is closed, and answered only if both records could be written: the
        // caller must not use a file that may not exist.
        const uint64_t number = created->mft_no;
        note_change(directory.get());
        const int32_t error = first_error(refused, created.close_in(directory.get()));
        const int32_t result = first_error(error, directory.close());
        if (result == 0) {
            *ino = number;
        }
        return result;
    }
};

int32_t check_new_name(const ntb_vol* vol, const char* name, utf16_text& out) noexcept {
    if (const int32_t error = check_windows_name(vol, name); error != 0) {
        return error;
    }
    // The library does not check names. A record under a name with a "/" could not be reached
    // again.
    return is_read_only(vol) ? EROFS : uname_of(name, out);
}

} // namespace

int32_t unlink_impl(ntb_vol* vol, uint64_t parent, const char* name, bool check_empty) noexcept {
    if (is_read_only(vol)) {
        return EROFS;
    }
    // By name and not by the caller's inode number: the name is what goes, whatever it leads to by
    // now.
    named_entry entry;
    if (const int32_t error = entry.find(vol, parent, name); error != 0) {
        return error;
    }
    // System files, without which the volume could not be used.
    if (entry.directory->mft_no == extend_ino || entry.ino < first_user_ino) {
        return EPERM;
    }
    if (entry.ino == entry.directory->mft_no) {
        return EIO; // only a damaged volume has a directory that contains itself
    }
    inode_guard child;
    if (const int32_t error = child.open(vol->volume, entry.ino); error != 0) {
        return error;
    }
    errno = 0;
    // Not asked when a rename removes the old name of a directory: that one need not be empty, and
    // keeps its new name.
    if (check_empty && is_directory(child.get()) && ntfs_check_empty_dir(child.get()) != 0) {
        return err_or(ENOTEMPTY);
    }
    errno = 0;
    // Takes over both inodes and closes them on success and on failure, hence the releases.
    const bool deleted =
        ntfs_delete(vol->volume, nullptr, child.release(), entry.directory.release(),
                    entry.name.units(), entry.name.name_length()) == 0;
    return deleted ? 0 : err_or(EIO);
}

int32_t link_name(ntb_vol* vol, uint64_t ino, uint64_t directory, const char* name) noexcept {
    utf16_text text;
    if (const int32_t error = uname_of(name, text); error != 0) {
        return error;
    }
    inode_guard inode;
    if (const int32_t error = inode.open(vol->volume, ino); error != 0) {
        return error;
    }
    // The same record would be open twice, and a directory as its own child is never valid.
    if (inode->mft_no == MREF(directory)) {
        return EINVAL;
    }
    inode_guard parent;
    if (const int32_t error = parent.open(vol->volume, directory); error != 0) {
        return error;
    }
    int32_t error = 0;
    errno = 0;
    if (ntfs_link(inode.get(), parent.get(), text.units(), text.name_length()) != 0) {
        error = err_or(EIO);
    } else {
        // The file's own status has changed, not its content; the directory's content has.
        ntfs_inode_update_times(inode.get(), NTFS_UPDATE_CTIME);
        note_change(parent.get());
    }
    // The directory first: closing the inode opens the directories of its names.
    error = first_error(error, parent.close());
    return first_error(error, inode.close());
}

} // namespace ntb

using namespace ntb;

namespace {

// Has the library make special files as WSL does while this lives, and links as Interix does
// otherwise.
class wsl_files {
  public:
    explicit wsl_files(ntfs_volume* volume) noexcept : volume_(volume) {
        volume_->special_files = NTFS_FILES_WSL;
    }
    wsl_files(const wsl_files&) = delete;
    wsl_files& operator=(const wsl_files&) = delete;
    ~wsl_files() { volume_->special_files = NTFS_FILES_INTERIX; }

  private:
    ntfs_volume* volume_;
};

// Null with errno.
ntfs_inode* make_inode(const ntb_vol* vol, const new_entry& entry, uint32_t kind, uint64_t device) {
    const wsl_files special(vol->volume);
    const auto plain = [&](mode_t type) {
        return ntfs_create(entry.directory.get(), 0, entry.name.units(), entry.name.name_length(),
                           type);
    };
    const auto of_device = [&](mode_t type) {
        return ntfs_create_device(
            entry.directory.get(), 0, entry.name.units(), entry.name.name_length(), type,
            makedev(static_cast<uint32_t>(device >> 32), static_cast<uint32_t>(device)));
    };
    errno = 0;
    switch (kind) {
    case NTB_TYPE_DIRECTORY:
        return plain(S_IFDIR);
    case NTB_TYPE_FIFO:
        return plain(S_IFIFO);
    case NTB_TYPE_SOCKET:
        return plain(S_IFSOCK);
    case NTB_TYPE_CHARACTER_DEVICE:
        return of_device(S_IFCHR);
    case NTB_TYPE_BLOCK_DEVICE:
        return of_device(S_IFBLK);
    default:
        return plain(S_IFREG);
    }
}

} // namespace

namespace ntb {

int32_t create_entry(ntb_vol* vol, uint64_t parent, const char* name, const ntb_new_item& item,
                     uint64_t* ino) noexcept {
    new_entry entry;
    if (const int32_t error = check_new_name(vol, name, entry.name); error != 0) {
        return error;
    }
    if (const int32_t error = entry.open_directory_at(vol, parent); error != 0) {
        return error;
    }
    if (entry.directory->mft_no == extend_ino) {
        return EPERM;
    }
    if (const int32_t error = entry.check_absent(); error != 0) {
        return error;
    }
    if (const int32_t error = admit(vol, 0); error != 0) {
        return error;
    }
    inode_guard created(make_inode(vol, entry, item.kind, item.device));
    return created ? entry.finish(vol, std::move(created), &item.owner, item.kind, ino)
                   : err_or(EIO);
}

} // namespace ntb

int32_t ntb_make(ntb_vol* vol, uint64_t parent, const char* name, const ntb_new_item* item,
                 uint64_t* ino) {
    return atomically(vol, [&] { return create_entry(vol, parent, name, *item, ino); });
}

int32_t ntb_create(ntb_vol* vol, uint64_t parent, const char* name, uint32_t kind, uint64_t* ino) {
    const ntb_new_item item = {kind == NTB_TYPE_DIRECTORY ? kind : uint32_t{NTB_TYPE_FILE}, 0, {}};
    return ntb_make(vol, parent, name, &item, ino);
}

static int32_t create_link_entry(ntb_vol* vol, uint64_t parent, const char* name,
                                 const char* target, const ntb_owner* owner, uint64_t* ino) {
    new_entry entry;
    if (const int32_t error = check_new_name(vol, name, entry.name); error != 0) {
        return error;
    }
    utf16_text target_text;
    if (const int32_t error = target_text.assign(target); error != 0) {
        return error;
    }
    if (target_text.length() == 0) {
        return EINVAL;
    }
    if (target_text.length() > interix_target_units_max || std::strlen(target) >= PATH_MAX) {
        return ENAMETOOLONG; // it could be written, but nobody would take it for a link again
    }
    if (const int32_t error = entry.open_directory_at(vol, parent); error != 0) {
        return error;
    }
    if (const int32_t error = entry.check_absent(); error != 0) {
        return error;
    }
    if (const int32_t error = admit(vol, 0); error != 0) {
        return error;
    }
    errno = 0;
    inode_guard created(ntfs_create_symlink(entry.directory.get(), 0, entry.name.units(),
                                            entry.name.name_length(), target_text.units(),
                                            target_text.length()));
    return created ? entry.finish(vol, std::move(created), owner, NTB_TYPE_SYMLINK, ino)
                   : err_or(EIO);
}

int32_t ntb_symlink(ntb_vol* vol, uint64_t parent, const char* name, const char* target,
                    const ntb_owner* owner, uint64_t* ino) {
    return atomically(vol,
                      [&] { return create_link_entry(vol, parent, name, target, owner, ino); });
}

int32_t ntb_unlink(ntb_vol* vol, uint64_t parent, const char* name) {
    return atomically(vol, [&] { return unlink_impl(vol, parent, name, true); });
}

static int32_t link_entry(ntb_vol* vol, uint64_t ino, uint64_t parent, const char* name) {
    utf16_text text;
    if (const int32_t error = check_new_name(vol, name, text); error != 0) {
        return error;
    }
    if (MREF(parent) == extend_ino || MREF(ino) < first_user_ino) {
        return EPERM;
    }
    {
        inode_guard directory;
        inode_guard file;
        int32_t error = open_directory(vol, parent, directory);
        if (error == 0 && MREF(ino) == MREF(parent)) {
            error = EPERM; // it would be open twice below
        }
        error = first_error(error, error == 0 ? file.open(vol->volume, ino) : 0);
        if (error == 0 && is_directory(file.get())) {
            error = EPERM;
        }
        uint64_t present = 0;
        if (error == 0 && lookup_in(directory.get(), text, present) == 0) {
            error = EEXIST;
        }
        if (error != 0) {
            return error;
        }
    } // no record is open twice
    const int32_t error = admit(vol, 0);
    return error != 0 ? error : link_name(vol, ino, parent, name);
}

int32_t ntb_link(ntb_vol* vol, uint64_t ino, uint64_t parent, const char* name) {
    return atomically(vol, [&] { return link_entry(vol, ino, parent, name); });
}
