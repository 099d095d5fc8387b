// What POSIX system calls do on a mount with `permissions`, case by case, compared with tmpfs.
//
// A case is one operation on one object by one user. Its outcome is the error and what is there
// afterwards: types, modes, owners, links, sizes, contents, and which times the operation moved.
// Left out because POSIX leaves them open: inode numbers, sizes of directories, access times.
#include "hosts/fuse/served_volume.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fnmatch.h>
#include <functional>
#include <grp.h>
#include <linux/fs.h>
#include <map>
#include <sys/mount.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kOwner = 40001, kOther = 40002;
constexpr gid_t kOwnersGroup = 50001, kSharedGroup = 50002, kOthersGroup = 50003;
constexpr uid_t kNone = -1u; // of ids: leave it

struct User {
    const char* name;
    uid_t user;
    gid_t group;
    std::vector<gid_t> further;
};
const User kUsers[] = {{"root", 0, 0, {}},
                       {"owner", kOwner, kOwnersGroup, {kSharedGroup}},
                       {"other", kOther, kOthersGroup, {}}};

// Where a case takes place; all are paths.
struct Place {
    std::string directory;
    std::string object() const { return directory + "/object"; } // of one of the kinds below
    std::string fresh() const { return directory + "/fresh"; }   // not there
    std::string file() const { return directory + "/file"; }     // the other user's
    std::string folder() const { return directory + "/folder"; } // empty, the owner's
};

int made(int result) {
    return result == -1 ? errno : 0;
}

int opened(const std::string& path, int flags, mode_t mode = 0666) {
    const int file = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, mode);
    const int error = made(file);
    ::close(file);
    return error;
}

int written(const std::string& path, int flags) {
    const FileDescriptor file(path.c_str(), flags | O_NONBLOCK);
    return file ? made(static_cast<int>(::write(file.get(), "more", 4))) : errno;
}

int renamed(const std::string& from, const std::string& to, unsigned flags = 0) {
    return made(::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags));
}

int owned(const std::string& path, uid_t user, gid_t group, int flags = 0) {
    return made(::fchownat(AT_FDCWD, path.c_str(), user, group, flags));
}

int timed(const std::string& path, timespec access, timespec modify, int flags = 0) {
    const timespec times[2] = {access, modify};
    return made(::utimensat(AT_FDCWD, path.c_str(), times, flags));
}

std::string repeated(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

struct Operation {
    const char* area;
    const char* name;
    std::function<int(const Place&)> run;
};

constexpr timespec kNow{0, UTIME_NOW}, kOmit{0, UTIME_OMIT}, kThen{1'234'567'890, 500};

// That make something new, whatever else there is.
const Operation kMakingOperations[] = {
    {"open", "new", [](auto& at) { return opened(at.fresh(), O_RDWR | O_CREAT | O_EXCL, 06775); }},
    {"open", "long name",
     [](auto& at) { return opened(at.directory + "/" + std::string(256, 'n'), O_CREAT); }},
    {"open", "longest name",
     [](auto& at) { return opened(at.directory + "/" + std::string(255, 'n'), O_CREAT); }},
    {"open", "name of 128 characters",
     [](auto& at) { return opened(at.directory + "/" + repeated("\u00e4", 128), O_CREAT); }},
    {"open", "name that is no text",
     [](auto& at) { return opened(at.directory + "/\xff", O_CREAT); }},
    {"open", "longest name that is no text",
     [](auto& at) { return opened(at.directory + "/" + std::string(255, '\xf4'), O_CREAT); }},
    {"open", "without a name", [](auto& at) { return opened(at.directory, O_TMPFILE | O_RDWR); }},
    {"mkdir", "new", [](auto& at) { return made(::mkdir(at.fresh().c_str(), 01735)); }},
    {"mknod", "file",
     [](auto& at) { return made(::mknod(at.fresh().c_str(), S_IFREG | 04640, 0)); }},
    {"mknod", "fifo",
     [](auto& at) { return made(::mknod(at.fresh().c_str(), S_IFIFO | 0666, 0)); }},
    {"mknod", "socket",
     [](auto& at) { return made(::mknod(at.fresh().c_str(), S_IFSOCK | 0777, 0)); }},
    {"mknod", "device",
     [](auto& at) {
         return made(::mknod(at.fresh().c_str(), S_IFCHR | 0666, makedev(259, 70'000)));
     }},
    {"symlink", "new", [](auto& at) { return made(::symlink("to/no where", at.fresh().c_str())); }},
    {"symlink", "of nothing", [](auto& at) { return made(::symlink("", at.fresh().c_str())); }},
    {"symlink", "to 2044 characters",
     [](auto& at) { return made(::symlink(std::string(2044, 't').c_str(), at.fresh().c_str())); }},
    {"utimensat", "before 1601",
     [](auto& at) {
         return timed(at.directory, kOmit, {-20'000'000'000, 0});
     }},
    {"utimensat", "to a nanosecond",
     [](auto& at) {
         return timed(at.directory, kOmit, {1'234'567'890, 123'456'789});
     }},
};

// Of names: what they need is decided by the directory.
const Operation kNameOperations[] = {
    {"open", "create", [](auto& at) { return opened(at.object(), O_WRONLY | O_CREAT, 0751); }},
    {"open", "exclusive", [](auto& at) { return opened(at.object(), O_RDWR | O_CREAT | O_EXCL); }},
    {"open", "below", [](auto& at) { return opened(at.object() + "/x", O_RDWR | O_CREAT); }},
    {"mkdir", "object", [](auto& at) { return made(::mkdir(at.object().c_str(), 0777)); }},
    {"mkdir", "below", [](auto& at) { return made(::mkdir((at.object() + "/x/").c_str(), 0777)); }},
    {"mknod", "object", [](auto& at) { return made(::mknod(at.object().c_str(), S_IFIFO, 0)); }},
    {"symlink", "object", [](auto& at) { return made(::symlink("x", at.object().c_str())); }},
    {"link", "new", [](auto& at) { return made(::link(at.object().c_str(), at.fresh().c_str())); }},
    {"link", "onto file",
     [](auto& at) { return made(::link(at.object().c_str(), at.file().c_str())); }},
    {"link", "elsewhere",
     [](auto& at) { return made(::link(at.object().c_str(), (at.folder() + "/x").c_str())); }},
    {"unlink", "object", [](auto& at) { return made(::unlink(at.object().c_str())); }},
    {"unlink", "with slash", [](auto& at) { return made(::unlink((at.object() + "/").c_str())); }},
    {"rmdir", "object", [](auto& at) { return made(::rmdir(at.object().c_str())); }},
    {"rmdir", "dot", [](auto& at) { return made(::rmdir((at.object() + "/.").c_str())); }},
    {"rename", "away", [](auto& at) { return renamed(at.object(), at.fresh()); }},
    {"rename", "into", [](auto& at) { return renamed(at.object(), at.folder() + "/x"); }},
    {"rename", "over file", [](auto& at) { return renamed(at.object(), at.file()); }},
    {"rename", "over folder", [](auto& at) { return renamed(at.object(), at.folder()); }},
    {"rename", "file over", [](auto& at) { return renamed(at.file(), at.object()); }},
    {"rename", "folder over", [](auto& at) { return renamed(at.folder(), at.object()); }},
    {"rename", "onto itself", [](auto& at) { return renamed(at.object(), at.object()); }},
    {"rename", "below itself", [](auto& at) { return renamed(at.object(), at.object() + "/x"); }},
    {"rename", "exchange",
     [](auto& at) { return renamed(at.object(), at.file(), RENAME_EXCHANGE); }},
    {"rename", "exchange with folder",
     [](auto& at) { return renamed(at.folder(), at.object(), RENAME_EXCHANGE); }},
    {"rename", "not over",
     [](auto& at) { return renamed(at.object(), at.file(), RENAME_NOREPLACE); }},
};

// Of objects: what they need is decided by the object.
const Operation kObjectOperations[] = {
    {"open", "read", [](auto& at) { return opened(at.object(), O_RDONLY); }},
    {"open", "write", [](auto& at) { return opened(at.object(), O_WRONLY); }},
    {"open", "truncate", [](auto& at) { return opened(at.object(), O_WRONLY | O_TRUNC); }},
    {"open", "directory", [](auto& at) { return opened(at.object(), O_RDONLY | O_DIRECTORY); }},
    {"open", "no link", [](auto& at) { return opened(at.object(), O_RDONLY | O_NOFOLLOW); }},
    {"open", "write into", [](auto& at) { return written(at.object(), O_WRONLY); }},
    {"open", "append", [](auto& at) { return written(at.object(), O_WRONLY | O_APPEND); }},
    {"chmod", "0640", [](auto& at) { return made(::chmod(at.object().c_str(), 0640)); }},
    {"chmod", "06755", [](auto& at) { return made(::chmod(at.object().c_str(), 06755)); }},
    {"chmod", "01777", [](auto& at) { return made(::chmod(at.object().c_str(), 01777)); }},
    {"chown", "user", [](auto& at) { return owned(at.object(), kOther, kNone); }},
    {"chown", "own group", [](auto& at) { return owned(at.object(), kNone, kSharedGroup); }},
    {"chown", "group", [](auto& at) { return owned(at.object(), kNone, kOthersGroup); }},
    {"chown", "nothing", [](auto& at) { return owned(at.object(), kNone, kNone); }},
    {"chown", "of link",
     [](auto& at) { return owned(at.object(), kOwner, kSharedGroup, AT_SYMLINK_NOFOLLOW); }},
    {"truncate", "to 0", [](auto& at) { return made(::truncate(at.object().c_str(), 0)); }},
    {"truncate", "same", [](auto& at) { return made(::truncate(at.object().c_str(), 7)); }},
    {"truncate", "larger", [](auto& at) { return made(::truncate(at.object().c_str(), 9000)); }},
    {"truncate", "negative", [](auto& at) { return made(::truncate(at.object().c_str(), -1)); }},
    {"utimensat", "now", [](auto& at) { return timed(at.object(), kNow, kNow); }},
    {"utimensat", "then", [](auto& at) { return timed(at.object(), kThen, kThen); }},
    {"utimensat", "access", [](auto& at) { return timed(at.object(), kThen, kOmit); }},
    {"utimensat", "nothing", [](auto& at) { return timed(at.object(), kOmit, kOmit); }},
    {"utimensat", "of link",
     [](auto& at) { return timed(at.object(), kOmit, kThen, AT_SYMLINK_NOFOLLOW); }},
};

const char* const kKinds[] = {"nothing", "file",  "linked file", "directory", "full directory",
                              "symlink", "loose", "fifo",        "device"};

void makeObject(const Place& at, const std::string& kind, mode_t mode) {
    const std::string path = at.object();
    if (kind == "nothing") {
        return;
    }
    if (kind.ends_with("directory")) {
        fs::create_directory(path);
        if (kind == "full directory") {
            writeFile(path + "/child", "child");
        }
    } else if (kind == "symlink" || kind == "loose") {
        fs::create_symlink(kind == "loose" ? "nowhere" : "file", path);
    } else if (kind == "fifo" || kind == "device") {
        ::mknod(path.c_str(), (kind == "fifo" ? S_IFIFO : S_IFCHR) | 0666, makedev(1, 3));
    } else {
        writeFile(path, "content");
        if (kind == "linked file") {
            fs::create_hard_link(path, at.directory + "/second");
        }
    }
    ::lchown(path.c_str(), kOwner, kOwnersGroup);
    if (!fs::is_symlink(path)) {
        ::chmod(path.c_str(), mode);
    }
}

struct Directory {
    const char* name;
    mode_t mode;
    uid_t user;
    gid_t group;
};
const Directory kDirectories[] = {{"open", 0777, 0, 0},
                                  {"sticky", 01777, 0, 0},
                                  {"owner's", 0755, kOwner, kOwnersGroup},
                                  {"closed", 0555, kOwner, kOwnersGroup},
                                  {"handing on", 02777, 0, kSharedGroup},
                                  {"foreign", 02777, 0, kOthersGroup}};
constexpr mode_t kModes[] = {0644, 0067, 06775, 02745, 0};

void makePlace(const Place& at, const std::string& kind, mode_t mode, const Directory& parent) {
    fs::create_directory(at.directory);
    makeObject(at, kind, mode);
    writeFile(at.file(), "another");
    ::chown(at.file().c_str(), kOther, kOthersGroup);
    ::chmod(at.file().c_str(), 0646);
    fs::create_directory(at.folder());
    ::chown(at.folder().c_str(), kOwner, kOwnersGroup);
    ::chown(at.directory.c_str(), parent.user, parent.group);
    ::chmod(at.directory.c_str(), parent.mode);
}

using Statuses = std::map<ino_t, struct stat>;

// Every item, the case's own directory first.
std::map<std::string, struct stat> look(const Place& at) {
    std::map<std::string, struct stat> all;
    struct stat status {};
    ::lstat(at.directory.c_str(), &status);
    all["."] = status;
    for (const auto& entry : fs::recursive_directory_iterator(at.directory)) {
        ::lstat(entry.path().c_str(), &status);
        all[entry.path().lexically_relative(at.directory)] = status;
    }
    return all;
}

bool isSame(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// A time that was asked for, and not the present one.
std::string chosen(const struct stat& status) {
    return status.st_mtim.tv_sec > kThen.tv_sec ? ""
                                                : "=" + std::to_string(status.st_mtim.tv_sec) +
                                                      "." + std::to_string(status.st_mtim.tv_nsec);
}

std::string describe(const Place& at, const Statuses& before) {
    std::string text;
    for (const auto& [name, status] : look(at)) {
        char line[256];
        const bool isDirectory = S_ISDIR(status.st_mode);
        std::snprintf(line, sizeof line, " [%.40s %o %u:%u", name.c_str(), status.st_mode,
                      status.st_uid, status.st_gid);
        text += line;
        if (!isDirectory) {
            text += " links=" + std::to_string(status.st_nlink) +
                    " size=" + std::to_string(status.st_size);
        }
        if (S_ISCHR(status.st_mode)) {
            text += " device=" + std::to_string(status.st_rdev);
        } else if (S_ISLNK(status.st_mode)) {
            text += " -> " + fs::read_symlink(at.directory + "/" + name).string();
        } else if (S_ISREG(status.st_mode)) {
            text += " " + readFile(at.directory + "/" + name).substr(0, 20);
        }
        if (const auto old = before.find(status.st_ino); old != before.end()) {
            text += isSame(old->second.st_mtim, status.st_mtim) ? "" : " mtime" + chosen(status);
            text += isSame(old->second.st_ctim, status.st_ctim) ? "" : " ctime";
        } else {
            text += " new";
        }
        text += "]";
    }
    return text;
}

// Runs one case as `user` and answers its outcome.
std::string outcome(const Operation& operation, const Place& at, const User& user) {
    const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    Statuses before;
    for (const auto& [name, status] : look(at)) {
        const std::string path = name == "." ? at.directory : at.directory + "/" + name;
        ::utimensat(AT_FDCWD, path.c_str(), old, AT_SYMLINK_NOFOLLOW);
    }
    for (const auto& [name, status] : look(at)) {
        before[status.st_ino] = status;
    }
    // What a user may do on a file system goes by the effective ids.
    ::setgroups(user.further.size(), user.further.data());
    const bool isUser = ::setegid(user.group) == 0 && ::seteuid(user.user) == 0;
    const int error = operation.run(at);
    const bool isRoot = ::seteuid(0) == 0 && ::setegid(0) == 0;
    if (!isUser || !isRoot) {
        return "the user could not be changed";
    }
    return (error == 0 ? "done" : ::strerrorname_np(error)) + describe(at, before);
}

using Outcomes = std::map<std::string, std::string>; // by case

void runCases(const fs::path& root, const std::function<void(std::string, std::string)>& take) {
    size_t count = 0;
    const auto runOne = [&](const Operation& operation, const std::string& kind, mode_t mode,
                            const Directory& parent, const std::string& variant) {
        for (const User& user : kUsers) {
            const Place at{root / std::to_string(count++)};
            makePlace(at, kind, mode, parent);
            take(std::string(operation.area) + " " + operation.name + ": " + kind + ", " + variant +
                     ", " + user.name,
                 outcome(operation, at, user));
        }
    };
    for (const Directory& parent : kDirectories) {
        for (const Operation& operation : kMakingOperations) {
            runOne(operation, kKinds[0], 0, parent, parent.name);
        }
        for (const std::string kind : kKinds) {
            for (const Operation& operation : kNameOperations) {
                if ((parent.mode & S_ISGID) == 0) { // that concerns what is made only
                    runOne(operation, kind, 0755, parent, parent.name);
                }
            }
        }
    }
    for (const mode_t mode : kModes) {
        char text[8];
        std::snprintf(text, sizeof text, "%04o", mode);
        for (const std::string kind : kKinds) {
            const bool hasMode = kind != "nothing" && kind != "symlink" && kind != "loose";
            for (const Operation& operation : kObjectOperations) {
                if (hasMode || mode == kModes[0]) {
                    runOne(operation, kind, mode, kDirectories[0], text);
                }
            }
        }
    }
}

// In a process of its own, whose ids nobody else has.
Outcomes outcomesBelow(const fs::path& root) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        FILE* const out = ::fdopen(ends[1], "w");
        ::umask(022);
        runCases(root, [&](const std::string& name, const std::string& result) {
            std::fprintf(out, "%s\t%s\n", name.c_str(), result.c_str());
        });
        std::fclose(out);
        std::_Exit(0);
    }
    ::close(ends[1]);
    Outcomes all;
    FILE* const in = ::fdopen(ends[0], "r");
    char* line = nullptr;
    size_t room = 0;
    while (::getline(&line, &room, in) > 0) {
        const std::string text(line);
        const size_t tab = text.find('\t');
        all[text.substr(0, tab)] = text.substr(tab + 1, text.size() - tab - 2);
    }
    std::free(line);
    std::fclose(in);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return all;
}

// What every tenth case has left behind.
std::string someStatuses(const fs::path& root) {
    std::string text;
    for (int i = 0; fs::exists(root / std::to_string(i)); i += 10) {
        text += describe({root / std::to_string(i)}, {}) + "\n";
    }
    return text;
}

// Who gets as far as the volume, where it is the directory that decides.
#define MAY_CHANGE "@(*, root|@(owner's|closed), owner)"
#define MAY_MAKE "@(*, root|owner's, owner|@(open|sticky|handing on|foreign), *)"

// Cases, as a pattern, in which this file system is known to differ. Each has to differ.
const struct {
    const char* cases;
    const char* reason;
} kDifferences[] = {
    {"open name of 128 characters: *", "255 UTF-16 units are a name, not 255 bytes"},
    {"open @(name|longest name) that is no text: *",
     "names are kept in UTF-16, and have to be UTF-8"},
    {"open without a name: nothing, " MAY_MAKE, "libfuse 3.14 does not pass O_TMPFILE on"},
    {"symlink to 2044 characters: nothing, " MAY_MAKE,
     "that is one more than other drivers take for a link"},
    {"utimensat before 1601: nothing, " MAY_CHANGE, "the first year that NTFS knows"},
    {"utimensat to a nanosecond: nothing, " MAY_CHANGE, "NTFS counts in steps of 100"},
    {"chown nothing: @(file|linked file|fifo|device), 2745, other",
     "the kernel's FUSE leaves a set-group-ID bit alone where the group may not execute"},
};

class MountConformance : public MountTest {
  protected:
    MountConformance() : MountTest(256 * kMiB, "permissions,dev,suid") {}
};

TEST_F(MountConformance, IsThatOfTmpfs) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "several users take root";
    }
    const TempDirectory memory;
    ASSERT_EQ(::mount("tmpfs", memory.path().c_str(), "tmpfs", 0, "mode=0755"), 0);
    const Outcomes expected = outcomesBelow(memory.path());
    ::umount2(memory.path().c_str(), MNT_DETACH);
    ::chmod(served_->directory().c_str(), 0755);
    const Outcomes seen = outcomesBelow(served_->directory());
    const std::string before = someStatuses(served_->directory());
    mount("permissions");
    EXPECT_EQ(someStatuses(served_->directory()), before) << "in a second mount";

    ASSERT_EQ(seen.size(), expected.size());
    std::map<std::string, size_t> used;
    for (const auto& [name, result] : expected) {
        const char* const words = name.c_str();
        const bool differs = seen.at(name) != result;
        const auto* const known = std::ranges::find_if(kDifferences, [&](const auto& difference) {
            return ::fnmatch(difference.cases, words, FNM_EXTMATCH) == 0;
        });
        if (known != std::end(kDifferences)) {
            EXPECT_TRUE(differs) << name << " is no different now";
            ++used[known->cases];
        } else {
            EXPECT_FALSE(differs) << name << "\n  tmpfs: " << result
                                  << "\n  here:  " << seen.at(name);
        }
    }
    for (const auto& difference : kDifferences) {
        EXPECT_NE(used[difference.cases], 0u) << difference.cases << ": there is no such case";
    }
}

} // namespace
} // namespace tavelin::test
