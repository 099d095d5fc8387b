#include "hosts/tree.hpp"

#include "support/temp_directory.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <system_error>

namespace tavelin::test {

namespace fs = std::filesystem;

namespace {

void check(ssize_t result, const fs::path& path) {
    if (result == -1) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

// The names and values of the attributes "user.*", in the order of names.
std::string readAttributes(const fs::path& path) {
    std::string names(64 << 10, '\0'), value(64 << 10, '\0');
    const ssize_t listed = ::llistxattr(path.c_str(), names.data(), names.size());
    check(listed, path);
    std::istringstream each(names.substr(0, static_cast<size_t>(listed)));
    std::set<std::string> found;
    for (std::string name; std::getline(each, name, '\0');) {
        if (name.starts_with("user.")) {
            const ssize_t got = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
            check(got, path);
            found.insert(name + "=" + value.substr(0, static_cast<size_t>(got)));
        }
    }
    return std::accumulate(found.begin(), found.end(), std::string());
}

} // namespace

Tree readTree(const fs::path& directory, bool withTimes) {
    Tree tree;
    for (const fs::directory_entry& found : fs::recursive_directory_iterator(directory)) {
        TreeEntry& entry = tree[found.path().lexically_relative(directory)];
        entry.type = found.symlink_status().type();
        std::string content;
        if (entry.type == fs::file_type::regular) {
            content = readFile(found.path());
            entry.size = found.file_size();
        } else if (entry.type == fs::file_type::symlink) {
            content = fs::read_symlink(found.path());
        }
        entry.content = std::hash<std::string>()(content);
        entry.attributes = std::hash<std::string>()(readAttributes(found.path()));
        if (withTimes) {
            struct stat status {};
            check(::lstat(found.path().c_str(), &status), found.path());
            entry.changed = status.st_mtim.tv_sec * 10'000'000 + status.st_mtim.tv_nsec / 100;
        }
    }
    return tree;
}

std::string firstDifference(const Tree& expected, const Tree& actual) {
    for (const auto& [path, entry] : expected) {
        const auto found = actual.find(path);
        if (found == actual.end()) {
            return path + " is missing";
        }
        if (!(found->second == entry)) {
            return path + " differs";
        }
    }
    for (const auto& [path, entry] : actual) {
        if (!expected.contains(path)) {
            return path + " is too much";
        }
    }
    return {};
}

void setModified(const fs::path& path, std::timespec time) {
    const std::timespec times[2] = {{0, UTIME_OMIT}, time};
    check(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), path);
}

void makeTree(const fs::path& directory, int files, unsigned seed) {
    std::mt19937 random(seed);
    const std::string oddNames[] = {"with space", "ünïcödé", "trailing.", "semi;colon", "日本語"};
    for (int i = 0; i < files; ++i) {
        const fs::path parent =
            directory / ("a" + std::to_string(i % 7)) / ("b" + std::to_string(i % 31));
        fs::create_directories(parent);
        const std::string name =
            (i % 50 == 0 ? oddNames[random() % std::size(oddNames)] : "file") + std::to_string(i);
        if (i % 97 == 0) {
            fs::create_symlink("../target of " + name, parent / name);
            continue;
        }
        // Mostly small, now and then of many clusters.
        const size_t size = random() % 10 == 0 ? random() % 200'000 : random() % 3'000;
        std::string content(size, '\0');
        std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
        writeFile(parent / name, content);
        if (i % 41 == 0) {
            const std::string value = content.substr(0, 2'000);
            for (const fs::path& noted : {parent / name, parent}) {
                check(::setxattr(noted.c_str(), "user.note", value.data(), value.size(), 0), noted);
            }
        }
    }
}

} // namespace tavelin::test
