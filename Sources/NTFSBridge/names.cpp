#include "NTFSBridge/names.hpp"

namespace ntb {

int32_t utf16_text::assign(const char* utf8) noexcept {
    if (utf8 == nullptr) {
        return EINVAL;
    }
    ntfschar* units = nullptr;
    errno = 0;
    const int length = ntfs_mbstoucs(utf8, &units);
    units_.reset(units);
    if (length < 0) {
        return err_or(EINVAL);
    }
    length_ = length;
    return 0;
}

bool to_utf8(const ntfschar* units, int length, char (&buffer)[name_buffer_size]) noexcept {
    // Most names are ASCII. The library's conversion, which measures each name first and takes the
    // locale into account, was a fifth of the cost of listing a directory.
    int ascii = 0;
    while (ascii < length && ascii < name_units_max) {
        const uint16_t unit = le16_to_cpu(units[ascii]);
        if (unit == 0 || unit > 0x7f) {
            break;
        }
        buffer[ascii++] = static_cast<char>(unit);
    }
    if (ascii == length) {
        buffer[ascii] = '\0';
        return true;
    }
    char* out = buffer;
    return ntfs_ucstombs(units, length, &out, name_buffer_size) >= 0;
}

c_string to_utf8(const ntfschar* units, int length) noexcept {
    char* out = nullptr;
    const bool converted = ntfs_ucstombs(units, length, &out, 0) >= 0;
    c_string text(out);
    return converted ? std::move(text) : c_string();
}

c_string copy_for_caller(const char* text) noexcept {
    const size_t size = std::strlen(text) + 1;
    c_string copy(static_cast<char*>(std::malloc(size)));
    if (copy) {
        std::memcpy(copy.get(), text, size);
    }
    return copy;
}

int32_t uname_of(const char* name, utf16_text& out) noexcept {
    if (name == nullptr || *name == '\0' || std::strcmp(name, ".") == 0 ||
        std::strcmp(name, "..") == 0 || std::strchr(name, '/') != nullptr) {
        return EINVAL;
    }
    if (const int32_t error = out.assign(name); error != 0) {
        return error;
    }
    return out.length() > name_units_max ? ENAMETOOLONG : 0;
}

int32_t stream_name_of(const char* name, utf16_text& out) noexcept {
    if (name == nullptr || *name == '\0') {
        return EINVAL;
    }
    if (const int32_t error = out.assign(name); error != 0) {
        return error;
    }
    return out.length() > name_units_max ? ENAMETOOLONG : 0;
}

int32_t check_windows_name(const ntb_vol* vol, const char* name) noexcept {
    if (vol->windows_names == 0) {
        return 0;
    }
    utf16_text text;
    if (text.assign(name) != 0) {
        return 0; // the name rules, which come later, say what is wrong with it
    }
    return ntfs_forbidden_names(vol->volume, text.units(), text.length(), TRUE) ? EINVAL : 0;
}

int32_t lookup_in(ntfs_inode* directory, const utf16_text& name, uint64_t& ino) noexcept {
    if (name.length() == 0) {
        return EINVAL;
    }
    errno = 0;
    const u64 reference = ntfs_inode_lookup_by_name(directory, name.units(), name.length());
    if (reference == static_cast<u64>(-1)) {
        return err_or(ENOENT);
    }
    ino = MREF(reference);
    return 0;
}

int32_t lookup_in(ntfs_inode* directory, const char* name, uint64_t& ino) noexcept {
    utf16_text text;
    if (const int32_t error = text.assign(name); error != 0) {
        return error;
    }
    return lookup_in(directory, text, ino);
}

int32_t named_entry::find(const ntb_vol* vol, uint64_t parent, const char* text) noexcept {
    if (const int32_t error = uname_of(text, name); error != 0) {
        return error;
    }
    if (const int32_t error = open_directory(vol, parent, directory); error != 0) {
        return error;
    }
    return lookup_in(directory.get(), name, ino);
}

bool find_in_any_case(ntfs_inode* directory, std::span<ntfschar> name, u64& found) noexcept {
    const auto length = static_cast<int>(name.size());
    ntfs_volume* const volume = directory->vol;
    constexpr auto absent = static_cast<u64>(-1);
    found = ntfs_inode_lookup_by_name(directory, name.data(), length);
    if (found != absent || !NVolCaseSensitive(volume)) {
        return found != absent;
    }
    NVolClearCaseSensitive(volume);
    found = ntfs_inode_lookup_by_name(directory, name.data(), length);
    NVolSetCaseSensitive(volume);
    if (found == absent || MREF(found) == directory->mft_no) {
        return false;
    }
    inode_guard inode;
    if (inode.open(volume, MREF(found)) != 0) {
        return false;
    }
    attribute_search search(inode.get());
    while (search.find(AT_FILE_NAME, AT_UNNAMED)) {
        const ATTR_RECORD* const record = search.found();
        const auto* const entry = reinterpret_cast<const FILE_NAME_ATTR*>(
            reinterpret_cast<const uint8_t*>(record) + le16_to_cpu(record->value_offset));
        ntfschar stored[UINT8_MAX];
        std::memcpy(stored,
                    reinterpret_cast<const uint8_t*>(entry) + offsetof(FILE_NAME_ATTR, file_name),
                    entry->file_name_length * sizeof(ntfschar));
        if (MREF_LE(entry->parent_directory) == directory->mft_no &&
            ntfs_names_are_equal(stored, entry->file_name_length, name.data(), name.size(),
                                 IGNORE_CASE, volume->upcase, volume->upcase_len)) {
            std::copy_n(stored, name.size(), name.data());
            return true;
        }
    }
    return false;
}

} // namespace ntb
