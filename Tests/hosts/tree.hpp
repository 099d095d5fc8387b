// What a directory holds, for comparing one with another.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>

namespace tavelin::test {

struct TreeEntry {
    std::filesystem::file_type type = std::filesystem::file_type::none;
    uint64_t size = 0;
    size_t content = 0;    // a hash of the bytes, or of a link's target
    size_t attributes = 0; // a hash of the extended attributes that belong to users
    int64_t changed = 0;   // 100 ns units since 1970; 0 where times are not to be compared

    bool operator==(const TreeEntry&) const = default;
};

using Tree = std::map<std::string, TreeEntry>; // by path below the directory

// Reads everything below a directory.
Tree readTree(const std::filesystem::path& directory, bool withTimes = false);

// Names the first entry that is not the same in both, empty when there is none.
std::string firstDifference(const Tree& expected, const Tree& actual);

// Sets the time of the last change, of a link itself. Throws std::system_error.
void setModified(const std::filesystem::path& path, std::timespec time);

// Writes a tree of `files` small files in nested directories, with links, odd names and extended
// attributes among them; the same for the same seed. Throws std::system_error.
void makeTree(const std::filesystem::path& directory, int files, unsigned seed = 1);

} // namespace tavelin::test
