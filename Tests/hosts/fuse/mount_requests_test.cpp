// How many requests the kernel sends for what programs do. Each is a trip to the server and back,
// which costs more than what the server does; a number here that grows is a loss of speed.
#include "hosts/fuse/served_volume.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountRequests : public MountTest {
  protected:
    MountRequests() : MountTest(64 * kMiB, "trace") {}

    // The requests sent while `work` runs, in order, but for the kernel's letting go of nodes.
    std::string during(const std::function<void()>& work) {
        // A name that does not exist is asked for each time: whatever came before is printed.
        const auto mark = [&](const char* name) { ::access(path(name).c_str(), F_OK); };
        mark("mark~1");
        const size_t before = served_->printed().size();
        work();
        mark("mark~1");
        std::istringstream lines(served_->printed().substr(before));
        std::string all;
        for (std::string line; std::getline(lines, line);) {
            const std::string kind = line.substr(0, line.find(' '));
            if (kind != "FORGET" && kind != "BATCH_FORGET") {
                all += all.empty() ? kind : " " + kind;
            }
        }
        const std::string last = "LOOKUP";
        EXPECT_TRUE(all.ends_with(last));
        all.resize(all.size() - last.size());
        return all.empty() ? all : all.substr(0, all.size() - 1);
    }

    void write(const std::string& name, int flags) {
        const std::string content(2000, 'x');
        const Descriptor file(*this / name, O_WRONLY | O_CREAT | flags);
        EXPECT_EQ(::write(file, content.data(), content.size()), 2000);
    }
};

TEST_F(MountRequests, AreAsFewAsTheKernelAllows) {
    write("first", 0); // teaches the kernel what is answered once and for all
    (void)readFile(*this / "first");
    (void)fs::directory_iterator(served_->directory());

    EXPECT_EQ(during([&] { write("file", 0); }), "LOOKUP CREATE GETXATTR WRITE");
    EXPECT_EQ(during([&] { write("file", 0); }), "WRITE");
    EXPECT_EQ(during([&] { write("file", O_TRUNC); }), "SETATTR GETXATTR WRITE");
    EXPECT_EQ(during([&] { write("other", O_EXCL); }), "LOOKUP CREATE GETXATTR WRITE");
    EXPECT_EQ(during([&] { fs::rename(*this / "file", *this / "renamed"); }), "LOOKUP RENAME");
    EXPECT_EQ(during([&] { fs::rename(*this / "other", *this / "renamed"); }), "LOOKUP RENAME");
    EXPECT_EQ(during([&] { ::unlink(path("renamed").c_str()); }), "UNLINK");
    EXPECT_EQ(during([&] { ::mkdir(path("folder").c_str(), 0777); }), "LOOKUP MKDIR");
    EXPECT_EQ(during([&] { ::rmdir(path("folder").c_str()); }), "RMDIR");
    EXPECT_EQ(during([&] { EXPECT_FALSE(fs::exists(*this / "absent")); }), "LOOKUP");
    EXPECT_EQ(during([&] { EXPECT_FALSE(fs::exists(*this / "absent")); }), "");
    EXPECT_EQ(during([&] {
                  const Descriptor file(*this / "first", O_WRONLY);
                  ::fsync(file);
              }),
              "FSYNC");
}

TEST_F(MountRequests, AreGatheredOnlyByWish) {
    const auto count = [](const std::string& requests, const std::string& kind) {
        int found = 0;
        for (size_t at = 0; (at = requests.find(kind, at)) != std::string::npos; ++at) {
            ++found;
        }
        return found;
    };
    for (const auto& [options, writes] : {std::pair("trace", 300), {"trace,writeback", 1}}) {
        SCOPED_TRACE(options);
        mount(options);
        const std::string requests = during([&] {
            const Descriptor file(*this / "file", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND);
            for (int i = 0; i < 300; ++i) { // within one page
                EXPECT_EQ(::write(file, "one hundred", 11), 11);
            }
        });
        EXPECT_EQ(count(requests, "WRITE"), writes);
    }
}

TEST_F(MountRequests, AColdStartAsksOnceForEverything) {
    fs::create_directory(*this / "folder");
    for (int i = 0; i < 40; ++i) {
        writeFile(*this / "folder" / ("file" + std::to_string(i)), "content");
    }
    fs::create_symlink("folder/file1", *this / "link");
    mount("trace");
    (void)fs::exists(*this / "absent"); // the root's own attributes
    const std::string directory = path("folder");
    struct stat status {};
    EXPECT_EQ(during([&] { ::stat((directory + "/file7").c_str(), &status); }), "LOOKUP LOOKUP");
    EXPECT_EQ(during([&] { ::stat((directory + "/file7").c_str(), &status); }), "");
    EXPECT_EQ(during([&] { (void)readFile(directory + "/file7"); }), "OPEN READ FLUSH")
        << "the only OPEN and FLUSH";
    EXPECT_EQ(during([&] { (void)readFile(directory + "/file7"); }), "");
    EXPECT_EQ(during([&] { (void)readFile(directory + "/file8"); }), "LOOKUP READ");
    EXPECT_EQ(during([&] { (void)readFile(*this / "link"); }), "LOOKUP READLINK LOOKUP READ");
    // A listing brings everything that a look at its entries needs.
    const auto lookAtAll = [&] {
        int found = 0;
        for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
            found += ::stat(entry.path().c_str(), &status) == 0;
        }
        EXPECT_EQ(found, 40);
    };
    EXPECT_EQ(during(lookAtAll), "OPENDIR READDIRPLUS READDIRPLUS RELEASEDIR");
    EXPECT_EQ(during(lookAtAll), "OPENDIR GETATTR READDIRPLUS READDIRPLUS RELEASEDIR")
        << "opendir(3) asks for the directory's last access, which the first listing has changed";
}

} // namespace
} // namespace tavelin::test
