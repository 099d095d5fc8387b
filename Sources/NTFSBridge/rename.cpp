// Renaming, made of adding a name and removing a name, so that the inode is never without one.
#include "NTFSBridge/names.hpp"
#include "NTFSBridge/namespace.hpp"
#include "NTFSBridge/operation.hpp"

using namespace ntb;

namespace {

struct entry_name {
    uint64_t directory;
    const char* name;
};

// Whether inode is start or one of the directories above it.
bool is_descendant(const ntb_vol* vol, uint64_t start, uint64_t inode) noexcept {
    // Walks upwards from the target directory and not downwards from the source: a path has few
    // steps, a subtree may have millions.
    uint64_t current = MREF(start);
    for (int step = 0; step < directory_depth_max && current != NTB_ROOT_INO; ++step) {
        if (current == inode) {
            return true;
        }
        inode_guard directory;
        // A directory that cannot be read is no reason to call it a descendant. The rename itself
        // will meet the same error and answer it.
        if (directory.open(vol->volume, current) != 0) {
            return false;
        }
        // Nothing is below a file, which may be in several directories.
        if (!is_directory(directory.get())) {
            return false;
        }
        const inode_guard parent(ntfs_dir_parent_inode(directory.get()));
        const uint64_t above = parent ? parent->mft_no : NTB_ROOT_INO;
        // A directory that is its own parent exists on a damaged volume only.
        if (above == current) {
            return false;
        }
        current = above;
    }
    // The loop ends at the root, which may itself be the inode that is asked for.
    return current == inode;
}

int32_t check_name(const char* name) noexcept {
    utf16_text text;
    return uname_of(name, text);
}

// For the middle of an operation. The record number makes it unlike any other temporary one. Should
// a user have such a file, adding the name fails with EEXIST and nothing has changed.
struct temporary_name {
    explicit temporary_name(uint64_t ino) noexcept {
        (void)std::snprintf(text, sizeof text, ".ntb-rename-%llu",
                            static_cast<unsigned long long>(ino));
    }
    char text[sizeof ".ntb-rename-18446744073709551615"];
};

// Takes `spare` from an inode that has `kept`, too, both by the directory's word and by its own:
// removing its last name would free its record and its clusters. Where that cannot be seen both
// stay, which does no harm.
void drop_spare(ntb_vol* vol, uint64_t ino, const entry_name& spare,
                const entry_name& kept) noexcept {
    const auto is_there = [&](const entry_name& entry) {
        uint64_t found = 0;
        return ntb_lookup(vol, entry.directory, entry.name, &found) == 0 &&
               MREF(found) == MREF(ino);
    };
    uint32_t names = 0;
    if (ntb_count_names(vol, ino, &names) == 0 && names > 1 && is_there(kept) && is_there(spare)) {
        (void)unlink_impl(vol, spare.directory, spare.name, false);
    }
}

// The new name leads to the source already: they are the long and the DOS name of one link, or two
// hard links of one file. A temporary third name keeps the inode alive while it has neither the old
// nor the new one, as removing its last name would free its record and its clusters.
int32_t rename_in_place(ntb_vol* vol, uint64_t ino, const entry_name& from,
                        const entry_name& to) noexcept {
    const temporary_name aside(ino);
    const entry_name temporary = {.directory = from.directory, .name = aside.text};
    if (const int32_t error = link_name(vol, ino, from.directory, aside.text); error != 0) {
        return error;
    }
    // The old name goes first. The library removes a long and a DOS name together, so the new one
    // is free after this. A second hard link stays, and the rename answers EEXIST.
    int32_t error = unlink_impl(vol, from.directory, from.name, false);
    error = first_error(error, error == 0 ? link_name(vol, ino, to.directory, to.name) : 0);
    if (error != 0) {
        // The first failure is the one to report, and the old name may be there still. With a page
        // cache end_operation() then undoes everything; this line is for volumes without one.
        (void)link_name(vol, ino, from.directory, from.name);
    }
    drop_spare(vol, ino, temporary, error == 0 ? to : from);
    return error;
}

// Removes what the new name leads to, as rename(2) replaces it. The kinds must agree, and a
// directory must be empty, which unlink_impl checks.
int32_t make_room(ntb_vol* vol, const ntb_attr& source, uint64_t target,
                  const entry_name& to) noexcept {
    ntb_attr attributes = {};
    if (const int32_t error = ntb_getattr(vol, target, &attributes); error != 0) {
        return error;
    }
    const bool source_is_directory = source.type == NTB_TYPE_DIRECTORY;
    const bool target_is_directory = attributes.type == NTB_TYPE_DIRECTORY;
    if (source_is_directory != target_is_directory) {
        return source_is_directory ? ENOTDIR : EISDIR;
    }
    // From here until move_name() the target name is missing. With a journal no power cut shows
    // that moment, as no flush falls inside an operation.
    return unlink_impl(vol, to.directory, to.name, true);
}

int32_t move_name(ntb_vol* vol, uint64_t ino, const entry_name& from,
                  const entry_name& to) noexcept {
    // The new name first, for the same reason as above: a file without a name has no record any
    // more.
    if (const int32_t error = link_name(vol, ino, to.directory, to.name); error != 0) {
        return error;
    }
    // Dirty pages are written in the order of their places on the device, so a power cut could let
    // the removal of the old name through and not the new name. Without a journal the cache is
    // therefore flushed in between. The device need not sync, as only the order matters. A failure
    // is dropped: the pages stay dirty, and the flush that retries them reports.
    if (vol->ordered_writes) {
        (void)vol->context->flush();
    }
    const int32_t error = unlink_impl(vol, from.directory, from.name, false);
    if (error != 0) {
        // The old name may have gone before the failure.
        drop_spare(vol, ino, to, from);
    }
    return error;
}

// The record of what a name leads to, when it may be moved to another directory.
int32_t movable(ntb_vol* vol, const entry_name& from, uint64_t destination,
                ntb_attr* source) noexcept {
    uint64_t ino = 0;
    if (const int32_t error = ntb_lookup(vol, from.directory, from.name, &ino); error != 0) {
        return error;
    }
    // $Extend shows none of its names, so what is moved there could not be moved out again.
    if (ino < first_user_ino || MREF(from.directory) == extend_ino ||
        MREF(destination) == extend_ino) {
        return EPERM;
    }
    if (const int32_t error = ntb_getattr(vol, ino, source); error != 0) {
        return error;
    }
    // Moved below itself, a directory would be cut off from the root with all that is in it.
    const bool is_cut_off =
        source->type == NTB_TYPE_DIRECTORY && is_descendant(vol, destination, ino);
    return is_cut_off ? EINVAL : 0;
}

} // namespace

static int32_t rename_entry(ntb_vol* vol, uint64_t parent, const char* name, uint64_t new_parent,
                            const char* new_name) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    if (name == nullptr || new_name == nullptr) {
        return EINVAL;
    }
    // A name renamed to itself succeeds without a change, as rename(2) has it. This comes before
    // the Windows-names rule, which an existing name need not keep.
    if (MREF(parent) == MREF(new_parent) && std::strcmp(name, new_name) == 0) {
        return 0;
    }
    int32_t error = check_windows_name(vol, new_name);
    // All checks come before the first change: below, an error leaves something to undo.
    error = first_error(error, check_name(name));
    error = first_error(error, check_name(new_name));
    if (error != 0) {
        return error;
    }
    const entry_name from = {.directory = parent, .name = name};
    const entry_name to = {.directory = new_parent, .name = new_name};
    ntb_attr attributes = {};
    if (error = movable(vol, from, new_parent, &attributes); error != 0) {
        return error;
    }
    const uint64_t source = attributes.ino;
    if (error = admit(vol, 0); error != 0) {
        return error;
    }
    uint64_t target = 0;
    // ENOENT is the usual case: nothing is replaced.
    error = ntb_lookup(vol, new_parent, new_name, &target);
    if (error == 0) {
        if (target == source) {
            return rename_in_place(vol, source, from, to);
        }
        error = make_room(vol, attributes, target, to);
    } else if (error == ENOENT) {
        error = 0;
    }
    return first_error(error, error == 0 ? move_name(vol, source, from, to) : 0);
}

int32_t ntb_rename(ntb_vol* vol, uint64_t parent, const char* name, uint64_t new_parent,
                   const char* new_name) {
    return atomically(vol, [&] { return rename_entry(vol, parent, name, new_parent, new_name); });
}

static int32_t exchange_entries(ntb_vol* vol, const entry_name& one, const entry_name& other) {
    if (is_read_only(vol)) {
        return EROFS;
    }
    ntb_attr first = {};
    ntb_attr second = {};
    int32_t error = movable(vol, one, other.directory, &first);
    error = first_error(error, error == 0 ? movable(vol, other, one.directory, &second) : 0);
    if (error != 0 || first.ino == second.ino) {
        return error;
    }
    const temporary_name aside(first.ino);
    const entry_name temporary = {.directory = one.directory, .name = aside.text};
    error = admit(vol, 0);
    error = first_error(error, error == 0 ? move_name(vol, first.ino, one, temporary) : 0);
    error = first_error(error, error == 0 ? move_name(vol, second.ino, other, one) : 0);
    return first_error(error, error == 0 ? move_name(vol, first.ino, temporary, other) : 0);
}

int32_t ntb_exchange(ntb_vol* vol, uint64_t parent, const char* name, uint64_t other_parent,
                     const char* other_name) {
    const entry_name one = {.directory = parent, .name = name};
    const entry_name other = {.directory = other_parent, .name = other_name};
    return atomically(vol, [&] { return exchange_entries(vol, one, other); });
}
