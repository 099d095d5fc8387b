// A sample volume mounted by the FUSE driver ntfs-3g, which writes what we only read.
#pragma once

#include "platform/file_descriptor.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {

// The image mounted by the driver, for as long as this lives.
class DriverMount {
  public:
    // With streams_interface=windows a named stream is reached as "file:stream", with
    // special_files=wsl special files are made as WSL does.
    explicit DriverMount(const SampleVolume& sample, const std::string& options = "compression")
        : image_(sample.image()), directory_(sample.directory() / "mount") {
        std::filesystem::create_directories(directory_);
        int ends[2] = {};
        EXPECT_EQ(pipe(ends), 0);
        untilItsEnd_.reset(ends[0]);
        const FileDescriptor inherited(ends[1]);
        fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        runOrThrow({"ntfs-3g", "-o", options, image_.string(), directory_.string()});
    }
    // The driver goes on for a moment after its mount is gone, and what mounts the image next
    // refuses it until then.
    ~DriverMount() {
        EXPECT_TRUE(run({"umount", directory_.string()}).ok());
        char none = 0;
        EXPECT_EQ(untilItsEnd_.readSome(&none, 1).bytes, 0u);
    }
    DriverMount(const DriverMount&) = delete;
    DriverMount& operator=(const DriverMount&) = delete;

    static bool isPossible() { return access("/dev/fuse", R_OK | W_OK) == 0 && geteuid() == 0; }

    std::filesystem::path operator/(const std::string& name) const { return directory_ / name; }
    std::string path(const std::string& name) const { return (*this / name).string(); }
    void make(const std::string& name, const std::string& content = {}) const {
        writeFile(directory_ / name, content);
    }
    void makeSpecial(const std::string& name, mode_t kind, dev_t device) const {
        EXPECT_EQ(mknod(path(name).c_str(), kind | 0666, device), 0)
            << name << ": " << strerror(errno);
    }
    void set(const std::string& name, const char* attribute, const std::string& value) const {
        EXPECT_EQ(setxattr(path(name).c_str(), attribute, value.data(), value.size(), 0), 0)
            << name << " " << attribute << ": " << strerror(errno);
    }
    std::string get(const std::string& name, const char* attribute) const {
        char value[65536];
        const ssize_t size = getxattr(path(name).c_str(), attribute, value, sizeof value);
        EXPECT_GE(size, 0) << name << " " << attribute << ": " << strerror(errno);
        return std::string(value, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }

  private:
    std::filesystem::path image_;
    std::filesystem::path directory_;
    FileDescriptor untilItsEnd_; // a pipe whose other end the driver alone holds
};

#define REQUIRE_DRIVER()                                                                           \
    if (!DriverMount::isPossible()) {                                                              \
        GTEST_SKIP() << "mounting the driver needs root and /dev/fuse";                            \
    }

} // namespace tavelin::test
