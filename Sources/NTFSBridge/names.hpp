// Text at the bridge's border: UTF-8 outside, UTF-16 in the library; and the rules for names.
#pragma once

#include "NTFSBridge/guards.hpp"
#include "NTFSBridge/volume.hpp"

#include <span>

namespace ntb {

inline constexpr int name_units_max = 255; // UTF-16 units, of files and streams alike

// A text in the library's form.
class utf16_text {
  public:
    // EINVAL for none, the library's errno (EILSEQ, ENOMEM) for text it cannot convert. An empty
    // text is fine.
    [[nodiscard]] int32_t assign(const char* utf8) noexcept;

    // UTF-16 in little endian, as the library takes it; null before assign(). Owned by this object.
    ntfschar* units() const noexcept { return units_.get(); }
    int length() const noexcept { return length_; }
    // The length in the type that the library's functions for names take. Only after uname_of or
    // stream_name_of, which refuse longer ones.
    u8 name_length() const noexcept { return static_cast<u8>(length_); }

  private:
    std::unique_ptr<ntfschar, c_free> units_;
    int length_ = 0;
};

// The UTF-8 form of a text, into a buffer large enough for the longest name. False when it has
// none.
// A unit of UTF-16 is at most three bytes of UTF-8; a pair of units, four.
inline constexpr int name_buffer_size = name_units_max * 3 + 1;
bool to_utf8(const ntfschar* units, int length, char (&buffer)[name_buffer_size]) noexcept;

// The UTF-8 form of a text of any length, for the caller to free; null when it has none.
c_string to_utf8(const ntfschar* units, int length) noexcept;

// A copy for the bridge's caller to free; null without memory.
c_string copy_for_caller(const char* text) noexcept;

// Converts the name of a directory entry. EINVAL when empty, ".", ".." or with a "/";
// ENAMETOOLONG over name_units_max; the library's errno when it cannot be converted.
[[nodiscard]] int32_t uname_of(const char* name, utf16_text& out) noexcept;

// Converts the name of a stream: EINVAL when empty, else as above; any character may occur.
[[nodiscard]] int32_t stream_name_of(const char* name, utf16_text& out) noexcept;

// EINVAL when the volume keeps the Windows-names rule and Windows could not use the name.
[[nodiscard]] int32_t check_windows_name(const ntb_vol* vol, const char* name) noexcept;

// Finds a name in an open directory: ENOENT, EINVAL for an empty name, or the library's errno.
[[nodiscard]] int32_t lookup_in(ntfs_inode* directory, const char* name, uint64_t& ino) noexcept;
[[nodiscard]] int32_t lookup_in(ntfs_inode* directory, const utf16_text& name,
                                uint64_t& ino) noexcept;

// A name in a directory that is open, and the record that it leads to.
struct named_entry {
    inode_guard directory;
    utf16_text name;
    uint64_t ino = 0;

    // Finds a name: the errors of uname_of, open_directory and lookup_in, in this order.
    [[nodiscard]] int32_t find(const ntb_vol* vol, uint64_t parent, const char* text) noexcept;
};

// The reference that a name leads to as it is written, else in another case by the volume's own
// table, as Windows looks names up; the name is then made the one that the volume has. False when
// there is none. No inode but the directory's may be open.
[[nodiscard]] bool find_in_any_case(ntfs_inode* directory, std::span<ntfschar> name,
                                    u64& found) noexcept;

} // namespace ntb
