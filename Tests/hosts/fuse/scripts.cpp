#include "hosts/fuse/scripts.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

constexpr uid_t kNone = -1u; // of ids: leave it
constexpr timespec kNow{0, UTIME_NOW}, kOmit{0, UTIME_OMIT}, kThen{1'234'567'890, 500};
constexpr auto kHeld = Operation::Needs::held;

int made(ssize_t result) {
    return result == -1 ? errno : 0;
}

int opened(const std::string& path, int flags, mode_t mode = 0666) {
    return FileDescriptor(path.c_str(), flags | O_NONBLOCK, mode) ? 0 : errno;
}

int written(const std::string& path, int flags) {
    const FileDescriptor file(path.c_str(), flags | O_NONBLOCK);
    return file ? made(::write(file.get(), "more", 4)) : errno;
}

int renamed(const std::string& from, const std::string& to, unsigned flags = 0) {
    return made(::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags));
}

int linked(const std::string& from, const std::string& to) {
    return made(::link(from.c_str(), to.c_str()));
}

int owned(const std::string& path, uid_t user, gid_t group, int flags = 0) {
    return made(::fchownat(AT_FDCWD, path.c_str(), user, group, flags));
}

int timed(const std::string& path, timespec access, timespec modify, int flags = 0) {
    const timespec times[2] = {access, modify};
    return made(::utimensat(AT_FDCWD, path.c_str(), times, flags));
}

int given(const std::string& path, const char* value, int flags) {
    return made(
        ::setxattr(path.c_str(), "user.x", value, std::char_traits<char>::length(value), flags));
}

int valueOf(const std::string& path, size_t room) {
    char value[16];
    return made(::getxattr(path.c_str(), "user.x", value, room));
}

// Keeps what the name stands for open; a directory for reading.
int hold(Place& at) {
    FileDescriptor file(at.a().c_str(), O_RDWR | O_NONBLOCK);
    if (!file && errno == EISDIR) {
        file = FileDescriptor(at.a().c_str(), O_RDONLY);
    }
    const int error = file ? 0 : errno;
    at.heldA = std::move(file);
    return error;
}

std::string repeated(const std::string& text, int count) {
    std::string all;
    for (int i = 0; i < count; ++i) {
        all += text;
    }
    return all;
}

// That make something new, whatever else there is.
const Operation kMakingOperations[] = {
    {"create b 06775", [](auto& at) { return opened(at.b(), O_RDWR | O_CREAT | O_EXCL, 06775); }},
    {"create 256 bytes",
     [](auto& at) { return opened(at.at("") + std::string(256, 'n'), O_CREAT); }},
    {"create 255 bytes",
     [](auto& at) { return opened(at.at("") + std::string(255, 'n'), O_CREAT); }},
    {"create 128 umlauts",
     [](auto& at) { return opened(at.at("") + repeated("\u00e4", 128), O_CREAT); }},
    {"create what is no text", [](auto& at) { return opened(at.at("\xff"), O_CREAT); }},
    {"create 255 bytes that are no text",
     [](auto& at) { return opened(at.at("") + std::string(255, '\xf4'), O_CREAT); }},
    {"create half a surrogate pair",
     [](auto& at) { return opened(at.at("half\xed\xa0\x80"), O_CREAT); }},
    {"create without a name", [](auto& at) { return opened(at.directory, O_TMPFILE | O_RDWR); }},
    {"mkdir b 01735", [](auto& at) { return made(::mkdir(at.b().c_str(), 01735)); }},
    {"mknod b 04640", [](auto& at) { return made(::mknod(at.b().c_str(), S_IFREG | 04640, 0)); }},
    {"mknod fifo b", [](auto& at) { return made(::mknod(at.b().c_str(), S_IFIFO | 0666, 0)); }},
    {"mknod socket b", [](auto& at) { return made(::mknod(at.b().c_str(), S_IFSOCK | 0777, 0)); }},
    {"mknod device b",
     [](auto& at) { return made(::mknod(at.b().c_str(), S_IFCHR | 0666, makedev(259, 70'000))); }},
    {"symlink b", [](auto& at) { return made(::symlink("to/no where", at.b().c_str())); }},
    {"symlink to many alphabets",
     [](auto& at) { return made(::symlink("Übergrößen/日本語/𝄞.txt", at.b().c_str())); }},
    {"symlink of nothing", [](auto& at) { return made(::symlink("", at.b().c_str())); }},
    {"symlink to 2044 characters",
     [](auto& at) { return made(::symlink(std::string(2044, 't').c_str(), at.b().c_str())); }},
    {"utimensat before 1601",
     [](auto& at) {
         return timed(at.directory, kOmit, {-20'000'000'000, 0});
     }},
    {"utimensat to a nanosecond",
     [](auto& at) {
         return timed(at.directory, kOmit, {1'234'567'890, 123'456'789});
     }},
};

// Of names: what they need is decided by the directory.
const Operation kNameOperations[] = {
    {"create a", [](auto& at) { return opened(at.a(), O_WRONLY | O_CREAT, 0751); }},
    {"create a exclusively", [](auto& at) { return opened(at.a(), O_RDWR | O_CREAT | O_EXCL); }},
    {"create A", [](auto& at) { return opened(at.at("A"), O_RDWR | O_CREAT); }},
    {"create b truncating", [](auto& at) { return opened(at.b(), O_RDWR | O_CREAT | O_TRUNC); }},
    {"create a/x", [](auto& at) { return opened(at.a() + "/x", O_RDWR | O_CREAT); }},
    {"mkdir a", [](auto& at) { return made(::mkdir(at.a().c_str(), 0777)); }},
    {"mkdir b", [](auto& at) { return made(::mkdir(at.b().c_str(), 0777)); }},
    {"mkdir a/x/", [](auto& at) { return made(::mkdir((at.a() + "/x/").c_str(), 0777)); }, false},
    {"mknod a", [](auto& at) { return made(::mknod(at.a().c_str(), S_IFIFO, 0)); }, false},
    {"symlink a", [](auto& at) { return made(::symlink("b", at.a().c_str())); }},
    {"symlink b", [](auto& at) { return made(::symlink("a", at.b().c_str())); }},
    {"link a b", [](auto& at) { return linked(at.a(), at.b()); }},
    {"link b a", [](auto& at) { return linked(at.b(), at.a()); }},
    {"link a b/x", [](auto& at) { return linked(at.a(), at.b() + "/x"); }},
    {"unlink a", [](auto& at) { return made(::unlink(at.a().c_str())); }},
    {"unlink b", [](auto& at) { return made(::unlink(at.b().c_str())); }},
    {"unlink a/", [](auto& at) { return made(::unlink((at.a() + "/").c_str())); }, false},
    {"unlink a/child", [](auto& at) { return made(::unlink((at.a() + "/child").c_str())); }},
    {"rmdir a", [](auto& at) { return made(::rmdir(at.a().c_str())); }},
    {"rmdir b", [](auto& at) { return made(::rmdir(at.b().c_str())); }},
    {"rmdir a/.", [](auto& at) { return made(::rmdir((at.a() + "/.").c_str())); }, false},
    {"rename a b", [](auto& at) { return renamed(at.a(), at.b()); }},
    {"rename b a", [](auto& at) { return renamed(at.b(), at.a()); }},
    {"rename a A", [](auto& at) { return renamed(at.a(), at.at("A")); }},
    {"rename a b/x", [](auto& at) { return renamed(at.a(), at.b() + "/x"); }},
    {"rename a/child b", [](auto& at) { return renamed(at.a() + "/child", at.b()); }},
    {"rename a a", [](auto& at) { return renamed(at.a(), at.a()); }, false},
    {"rename a a/x", [](auto& at) { return renamed(at.a(), at.a() + "/x"); }, false},
    {"rename a b not over", [](auto& at) { return renamed(at.a(), at.b(), RENAME_NOREPLACE); }},
    {"exchange a b", [](auto& at) { return renamed(at.a(), at.b(), RENAME_EXCHANGE); }},
    {"exchange a b/child",
     [](auto& at) { return renamed(at.a(), at.b() + "/child", RENAME_EXCHANGE); }},
};

// Of objects: what they need is decided by the object.
const Operation kObjectOperations[] = {
    {"open reading", [](auto& at) { return opened(at.a(), O_RDONLY); }, false},
    {"open writing", [](auto& at) { return opened(at.a(), O_WRONLY); }, false},
    {"open truncating", [](auto& at) { return opened(at.a(), O_WRONLY | O_TRUNC); }},
    {"open directory", [](auto& at) { return opened(at.a(), O_RDONLY | O_DIRECTORY); }},
    {"open no link", [](auto& at) { return opened(at.a(), O_RDONLY | O_NOFOLLOW); }},
    {"write", [](auto& at) { return written(at.a(), O_WRONLY); }},
    {"append", [](auto& at) { return written(at.a(), O_WRONLY | O_APPEND); }},
    {"chmod 0640", [](auto& at) { return made(::chmod(at.a().c_str(), 0640)); }},
    {"chmod 06755", [](auto& at) { return made(::chmod(at.a().c_str(), 06755)); }, false},
    {"chmod 01777", [](auto& at) { return made(::chmod(at.a().c_str(), 01777)); }, false},
    {"chown user", [](auto& at) { return owned(at.a(), kOther, kNone); }, false},
    {"chown own group", [](auto& at) { return owned(at.a(), kNone, kSharedGroup); }, false},
    {"chown group", [](auto& at) { return owned(at.a(), kNone, kOthersGroup); }, false},
    {"chown nothing", [](auto& at) { return owned(at.a(), kNone, kNone); }, false},
    {"chown of link",
     [](auto& at) { return owned(at.a(), kOwner, kSharedGroup, AT_SYMLINK_NOFOLLOW); }, false},
    {"truncate to 0", [](auto& at) { return made(::truncate(at.a().c_str(), 0)); }},
    {"truncate same", [](auto& at) { return made(::truncate(at.a().c_str(), 6)); }, false},
    {"truncate larger", [](auto& at) { return made(::truncate(at.a().c_str(), 9000)); }},
    {"truncate negative", [](auto& at) { return made(::truncate(at.a().c_str(), -1)); }, false},
    {"utimensat now", [](auto& at) { return timed(at.a(), kNow, kNow); }, false},
    {"utimensat then", [](auto& at) { return timed(at.a(), kThen, kThen); }, false},
    {"utimensat access", [](auto& at) { return timed(at.a(), kThen, kOmit); }, false},
    {"utimensat nothing", [](auto& at) { return timed(at.a(), kOmit, kOmit); }, false},
    {"utimensat of link", [](auto& at) { return timed(at.a(), kOmit, kThen, AT_SYMLINK_NOFOLLOW); },
     false},
    {"setxattr", [](auto& at) { return given(at.a(), "", 0); }},
    {"setxattr new", [](auto& at) { return given(at.a(), "first", XATTR_CREATE); }},
    {"setxattr again", [](auto& at) { return given(at.a(), "second", XATTR_REPLACE); }},
    {"getxattr size", [](auto& at) { return valueOf(at.a(), 0); }, false},
    {"getxattr in 5 bytes", [](auto& at) { return valueOf(at.a(), 5); }},
    {"removexattr", [](auto& at) { return made(::removexattr(at.a().c_str(), "user.x")); }},
};

// Of what is open, whatever has become of its name.
const Operation kHeldOperations[] = {
    {"hold a", hold},
    {"held write", [](auto& at) { return made(::pwrite(at.heldA.get(), "HELD", 4, 2)); }, true,
     kHeld},
    {"held truncate", [](auto& at) { return made(::ftruncate(at.heldA.get(), 3)); }, true, kHeld},
    {"held chmod", [](auto& at) { return made(::fchmod(at.heldA.get(), 0600)); }, true, kHeld},
    {"held setxattr",
     [](auto& at) { return made(::fsetxattr(at.heldA.get(), "user.x", "held", 4, 0)); }, true,
     kHeld},
    {"held link b",
     [](auto& at) {
         return made(::linkat(at.heldA.get(), "", AT_FDCWD, at.b().c_str(), AT_EMPTY_PATH));
     },
     true, kHeld},
    {"held create",
     [](auto& at) {
         return FileDescriptor(::openat(at.heldA.get(), "x", O_RDWR | O_CREAT | O_CLOEXEC, 0666))
                    ? 0
                    : errno;
     },
     true, kHeld},
    {"held sync", [](auto& at) { return made(::fsync(at.heldA.get())); }, true, kHeld},
};

const User kUsers[] = {{"root", 0, 0, {}},
                       {"owner", kOwner, kOwnersGroup, {kSharedGroup}},
                       {"other", kOther, kOthersGroup, {}}};
const Parent kParents[] = {{"open", 0777, 0, 0},
                           {"sticky", 01777, 0, 0},
                           {"owner's", 0755, kOwner, kOwnersGroup},
                           {"closed", 0555, kOwner, kOwnersGroup},
                           {"handing on", 02777, 0, kSharedGroup},
                           {"foreign", 02777, 0, kOthersGroup}};
constexpr mode_t kModes[] = {0644, 0067, 06775, 02745, 0};

// In pairs, each of "a" and "b" is each of these.
constexpr const char* kStates[] = {"missing", "file",     "empty directory", "full directory",
                                   "link",    "dangling", "removed",         "hard link"};
constexpr const char* kFurtherStates[] = {"fifo", "device", "open", "emptied directory",
                                          "removed directory"};
// What a program has open.
constexpr const char* kHeldStates[] = {"removed", "open", "emptied directory", "removed directory"};

std::vector<const char*> statesOfSingles() {
    std::vector<const char*> states(std::begin(kStates), std::end(kStates));
    states.insert(states.end(), std::begin(kFurtherStates), std::end(kFurtherStates));
    return states;
}

// One operation by each user: of names in each kind of directory, of objects with each mode.
void addSingles(std::vector<Script>& scripts) {
    const auto add = [&](const Operation& operation, const char* a, const char* b,
                         const Parent& parent, mode_t mode) {
        for (const User& user : kUsers) {
            scripts.push_back({a, b, &parent, mode, &user, {&operation}});
        }
    };
    const Parent& open = kParents[0];
    for (const Parent& parent : kParents) {
        for (const Operation& operation : kMakingOperations) {
            add(operation, "missing", "missing", parent, 0755);
        }
        for (const char* const a : statesOfSingles()) {
            for (const Operation& operation : kNameOperations) {
                for (const char* const b : {"missing", "open", "emptied directory"}) {
                    if ((parent.mode & S_ISGID) == 0) { // that concerns what is made only
                        add(operation, a, b, parent, 0755);
                    }
                }
            }
        }
    }
    for (const mode_t mode : kModes) {
        for (const std::string_view a : statesOfSingles()) {
            const bool hasMode =
                a != "missing" && a != "link" && a != "dangling" && !a.starts_with("removed");
            for (const Operation& operation : kObjectOperations) {
                if (hasMode || mode == kModes[0]) {
                    add(operation, a.data(), "missing", open, mode);
                }
            }
        }
    }
    for (const char* const a : kHeldStates) {
        for (const Operation& operation : kHeldOperations) {
            scripts.push_back({a, "missing", &open, 0755, &kUsers[0], {&operation}});
        }
    }
}

// Two operations by root, on each pair of states.
void addPairs(std::vector<Script>& scripts) {
    std::vector<const Operation*> operations;
    for (const std::span<const Operation> table : {std::span<const Operation>(kNameOperations),
                                                   std::span<const Operation>(kObjectOperations),
                                                   std::span<const Operation>(kHeldOperations)}) {
        for (const Operation& operation : table) {
            if (operation.isInPairs) {
                operations.push_back(&operation);
            }
        }
    }
    for (const Operation* const first : operations) {
        for (const Operation* const second : operations) {
            for (const char* const a : kStates) {
                const bool isHeld = std::string_view(a) == "removed";
                if ((first->needs == kHeld && !isHeld) ||
                    (second->needs == kHeld && !isHeld && first != &kHeldOperations[0])) {
                    continue;
                }
                for (const char* const b : kStates) {
                    scripts.push_back({a, b, &kParents[0], 0755, &kUsers[0], {first, second}});
                }
            }
        }
    }
}

} // namespace

std::string Script::name() const {
    std::string text = fmt::format("{}, {}, {}, {:04o}, {}:", a, b, parent->name, mode, user->name);
    for (const Operation* const operation : operations) {
        text += fmt::format("{} {}", operation == operations.front() ? "" : ";", operation->name);
    }
    return text;
}

std::vector<Script> allScripts() {
    std::vector<Script> scripts;
    addSingles(scripts);
    addPairs(scripts);
    return scripts;
}

} // namespace tavelin::test
