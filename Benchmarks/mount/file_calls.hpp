// System calls that throw, for measured code: no library layer between the clock and the kernel.
#pragma once

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tavelin::bench {

inline void check(bool ok, const std::string& what) {
    if (!ok)
        throw std::system_error(errno, std::generic_category(), what);
}

class File {
  public:
    File(const std::string& path, int flags)
        : path_(path), fd_(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
        check(fd_ != -1, path_);
    }
    ~File() { ::close(fd_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void write(std::string_view bytes, off_t offset) {
        const ssize_t done = ::pwrite(fd_, bytes.data(), bytes.size(), offset);
        check(done == static_cast<ssize_t>(bytes.size()), path_);
    }
    size_t read(std::string& buffer, off_t offset) {
        const ssize_t done = ::pread(fd_, buffer.data(), buffer.size(), offset);
        check(done >= 0, path_);
        return static_cast<size_t>(done);
    }
    void sync() { check(::fsync(fd_) == 0, path_); }

  private:
    std::string path_;
    int fd_;
};

// The names in a directory but for "." and "..".
inline std::vector<std::string> namesIn(const std::string& directory) {
    DIR* stream = ::opendir(directory.c_str());
    check(stream != nullptr, directory);
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(stream)) // one thread only, one stream each
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    ::closedir(stream);
    return names;
}

inline struct stat statusOf(const std::string& path) {
    struct stat found {};
    check(::lstat(path.c_str(), &found) == 0, path);
    return found;
}

} // namespace tavelin::bench
