// What a mount says of items: times of directories, owners and modes, handles, streams.
#include "core/file_block_device.hpp"
#include "core/ntfs_volume.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

using MountAttributes = MountTest;

TEST_F(MountAttributes, FilesInUseAreCounted) {
    const auto used = [this] {
        struct statvfs status {};
        EXPECT_EQ(::statvfs(path("").c_str(), &status), 0);
        return status.f_files - status.f_ffree;
    };
    const fsfilcnt_t before = used();
    EXPECT_GT(before, 10u) << "the volume's own files";
    EXPECT_LT(before, 100u);
    constexpr int kFiles = 300; // more than a new table of files has records for
    // Names of many lengths, so that a page of a listing has room for some behind one for which it
    // has none.
    const auto nameOf = [](int i) {
        return "file" + std::to_string(i) + std::string(static_cast<size_t>(i % 50), 'x');
    };
    for (int i = 0; i < kFiles; ++i) {
        writeFile(*this / nameOf(i), "");
    }
    EXPECT_EQ(used(), before + kFiles);
    EXPECT_EQ(names().size(), size_t{kFiles});
    // The kernel lets go of the removed files all at once, when the server does not listen.
    std::vector<std::unique_ptr<Descriptor>> open;
    for (int i = 0; i < 100; ++i) {
        open.push_back(std::make_unique<Descriptor>(*this / nameOf(i), O_RDONLY));
        fs::remove(*this / nameOf(i));
    }
    ::kill(served_->server(), SIGSTOP);
    open.clear();
    ::kill(served_->server(), SIGCONT);
    const fsfilcnt_t left = before + kFiles - 100;
    constexpr int kQuestionsMax = 100'000; // each of which the server answers between others
    for (int i = 0; i < kQuestionsMax && used() > left + 1; ++i) {
    }
    EXPECT_LE(used(), left + 1) << "the directory for removed files may be there";
    mount();
    EXPECT_EQ(used(), left);
}

// As desktops mount: everything is the user's, and programs on the volume can be run.
TEST_F(MountAttributes, OwnersAndMasksAreThoseOfTheOptions) {
    const struct {
        const char* options;
        mode_t file, directory;
        uid_t user;
        gid_t group;
    } kRows[] = {
        {"", 0777, 0777, ::getuid(), ::getgid()},
        {"uid=1234,gid=4321,windows_names,nodev,nosuid,uhelper=udisks2", 0777, 0777, 1234, 4321},
        {"umask=022", 0755, 0755, ::getuid(), ::getgid()},
        {"umask=077,fmask=0133,uid=1234", 0644, 0700, 1234, ::getgid()},
        {"dmask=027", 0777, 0750, ::getuid(), ::getgid()},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.options);
        mount(row.options);
        writeFile(*this / "program", "#!/bin/sh\nexit 7\n");
        fs::create_directories(*this / "folder");
        EXPECT_EQ(statusOf("program").st_mode, S_IFREG | row.file);
        EXPECT_EQ(statusOf("folder").st_mode, S_IFDIR | row.directory);
        EXPECT_EQ(statusOf("program").st_uid, row.user);
        EXPECT_EQ(statusOf("folder").st_gid, row.group);
        if ((row.file & 0111) != 0) {
            EXPECT_EQ(run({path("program")}).status, 7);
        } else {
            EXPECT_EQ(errorOf(::access(path("program").c_str(), X_OK)), EACCES);
        }
    }
}

// What a file server keeps of a file while nobody has it open.
struct Handle {
    explicit Handle(const std::string& path) {
        handle()->handle_bytes = MAX_HANDLE_SZ;
        int mount = 0;
        EXPECT_EQ(::name_to_handle_at(AT_FDCWD, path.c_str(), handle(), &mount, 0), 0) << path;
    }
    FileDescriptor open(const Descriptor& root) {
        return FileDescriptor(::open_by_handle_at(root, handle(), O_RDONLY));
    }
    file_handle* handle() { return reinterpret_cast<file_handle*>(space); }

    alignas(file_handle) unsigned char space[sizeof(file_handle) + MAX_HANDLE_SZ] = {};
};

TEST_F(MountAttributes, HandlesAreGoodInEveryMount) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root opens handles";
    }
    fs::create_directories(*this / "one/two/three");
    writeFile(*this / "one/two/file", "content");
    fs::create_hard_link(*this / "one/two/file", *this / "linked");
    Handle file(path("one/two/file")), directory(path("one/two/three")), top(path(""));
    for (const char* now : {"one", "moved"}) {
        mount();
        const Descriptor root(served_->directory(), O_RDONLY | O_DIRECTORY);
        const FileDescriptor opened = file.open(root), below = directory.open(root);
        ASSERT_TRUE(opened && below) << std::generic_category().message(errno);
        char text[8] = {};
        EXPECT_EQ(opened.readAt(text, sizeof text, 0).bytes, 7u);
        EXPECT_STREQ(text, "content");
        EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(below.get())),
                  *this / (std::string(now) + "/two/three"));
        EXPECT_EQ(errorOf(::faccessat(below.get(), "../file", R_OK, 0)), 0);
        EXPECT_TRUE(top.open(root));
        fs::rename(*this / now, *this / "moved");
    }
    // Nobody is given one of a system file, but root can make one: of the table of files itself,
    // and of the files in $Extend.
    Handle forged(path("moved"));
    mount();
    for (const uint32_t record : {0u, 24u, 25u, 26u}) {
        const uint32_t words[] = {1u << 16, record, 1}; // the node's halves, its generation
        std::memcpy(forged.handle()->f_handle, words, sizeof words);
        EXPECT_FALSE(forged.open(Descriptor(served_->directory(), O_RDONLY | O_DIRECTORY)));
        EXPECT_EQ(errno, ESTALE) << record;
    }
}

TEST_F(MountAttributes, StreamsAreNotShownWhereTheyAreNotWanted) {
    writeFile(*this / "file", "content");
    ASSERT_EQ(::setxattr(path("file").c_str(), "user.author", "me", 2, 0), 0);
    served_->unmount();
    EXPECT_EQ(volume_->cat("file", "author"), "me") << "an attribute is a stream";
    mount("streams_interface=none");
    EXPECT_EQ(::listxattr(path("file").c_str(), nullptr, 0), 0);
    EXPECT_EQ(errorOf(::setxattr(path("file").c_str(), "user.author", "x", 1, 0)), EOPNOTSUPP);
    mount();
    EXPECT_EQ(::getxattr(path("file").c_str(), "user.author", nullptr, 0), 2);
}

// Linux has no longer attributes than 64 KiB, so programs that move a file leave such a stream
// behind. The log has a line of each such file.
TEST_F(MountAttributes, StreamsTooLongForAnAttributeAreNamedInTheLog) {
    served_.reset();
    {
        const auto device =
            std::make_shared<FileBlockDevice>(volume_->image().string(), 512, false);
        const auto ntfs = NTFSVolume::open(device, false);
        for (const char* name : {"one", "two", "short"}) {
            const uint64_t file = ntfs->create(name, NTFSVolume::kRootIno, NTFSItemType::file);
            const std::vector<std::byte> value(*name == 's' ? 65'536 : 70'000);
            ntfs->setXattr("thumbnail", file, value, NTFSVolume::XattrPolicy::always);
        }
        ntfs->unmount();
    }
    mount();
    for (int i = 0; i < 2; ++i) {
        runOrThrow(
            {"cp", "-a", path("one"), path("two"), path("short"), volume_->directory().path()});
    }
    EXPECT_EQ(served_->unmount(), 0); // with which all is in the log
    const std::string said = served_->logged();
    const std::regex line("file ([0-9]+): the stream thumbnail has 70000 bytes");
    std::set<std::string> files;
    const auto end = std::sregex_iterator();
    const auto lines = std::distance(std::sregex_iterator(said.begin(), said.end(), line), end);
    for (auto at = std::sregex_iterator(said.begin(), said.end(), line); at != end; ++at) {
        files.insert(at->str(1));
    }
    EXPECT_EQ(files.size(), 2u) << said;
    EXPECT_EQ(lines, 2) << said;
}

// The system's own driver has the same attribute.
TEST_F(MountAttributes, TheTimeOfBirthIsAnAttribute) {
    constexpr const char* kName = "system.ntfs_crtime";
    const std::string given("\x01\x02\x03\x04\x05\x06\xd9\x01", 8);
    const std::string before1970("\x80\x96\x98\0\0\0\0\0", 8); // a second into 1601
    changeByDriver([&](const DriverMount& driver) {
        driver.make("file", "content");
        driver.make("folder's neighbour", "content");
        driver.set("file", kName, given);
    });
    char value[8];
    ASSERT_EQ(::getxattr(path("file").c_str(), kName, value, sizeof value), 8);
    EXPECT_EQ(std::string(value, 8), given);
    EXPECT_EQ(::listxattr(path("file").c_str(), nullptr, 0), 0);
    const std::string other = path("folder's neighbour");
    ASSERT_EQ(::setxattr(other.c_str(), kName, before1970.data(), 8, 0), 0);
    EXPECT_EQ(errorOf(::setxattr(other.c_str(), kName, "short", 5, 0)), EINVAL);
    EXPECT_EQ(errorOf(::setxattr(other.c_str(), kName, "\x80\x80\x80\x80\x80\x80\x80\x80", 8, 0)),
              EINVAL);
    mount("allow_other");
    const std::string shared = path("folder's neighbour");
    ASSERT_EQ(::seteuid(40001), 0);
    EXPECT_EQ(errorOf(::setxattr(shared.c_str(), kName, given.data(), 8, 0)), EPERM)
        << "of somebody else's file";
    ASSERT_EQ(::seteuid(0), 0);
    changeByDriver([&](const DriverMount& driver) {
        EXPECT_EQ(driver.get("folder's neighbour", kName), before1970);
    });
}

} // namespace
} // namespace tavelin::test
