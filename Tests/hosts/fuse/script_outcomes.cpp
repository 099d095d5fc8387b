#include "hosts/fuse/scripts.hpp"
#include "support/temp_directory.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <map>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace tavelin::test {

namespace fs = std::filesystem;

namespace {

struct Item {
    std::string name; // below the script's directory, which is "."
    std::string path;
    struct stat status;
};

// Every item, the script's own directory first.
std::vector<Item> itemsIn(const std::string& directory) {
    std::map<std::string, Item> all;
    const auto add = [&](const std::string& name, const std::string& path) {
        Item item{name, path, {}};
        if (::lstat(path.c_str(), &item.status) == 0) {
            all[name] = item;
        } else {
            all[name] = {name + " is listed and not there", path, {}};
        }
    };
    add(".", directory);
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        add(entry.path().lexically_relative(directory), entry.path());
    }
    for (const char* const name : {"a", "b"}) {
        struct stat status {};
        const std::string path = directory + "/" + name;
        if (!all.contains(name) && ::lstat(path.c_str(), &status) == 0) {
            all[name] = {std::string(name) + " is there and not listed", path, status};
        }
    }
    std::vector<Item> items;
    for (auto& [name, item] : all) {
        items.push_back(std::move(item));
    }
    return items;
}

// What a file's bytes and its attribute are; nothing of either for what has none.
std::string contentOf(int file) {
    char text[32];
    const ssize_t size = ::pread(file, text, sizeof text, 0);
    std::string content;
    for (ssize_t i = 0; i < size; ++i) {
        content += text[i] == '\0' ? '0' : text[i];
    }
    const ssize_t attribute = ::fgetxattr(file, "user.x", text, sizeof text);
    return attribute < 0 ? content
                         : content + " x=" + std::string(text, static_cast<size_t>(attribute));
}

// Sizes and link counts of directories are each file system's own.
std::string described(const struct stat& status) {
    std::string text = fmt::format("{:o} {}:{}", status.st_mode, status.st_uid, status.st_gid);
    if (!S_ISDIR(status.st_mode)) {
        text += fmt::format(" links={} size={}", status.st_nlink, status.st_size);
    }
    if (S_ISCHR(status.st_mode)) {
        text += fmt::format(" device={}", status.st_rdev);
    }
    return text;
}

std::string treeOf(const std::string& directory) {
    std::string text;
    std::map<ino_t, std::string> seen;
    for (const Item& item : itemsIn(directory)) {
        text += fmt::format(" [{:.40} {}", item.name, described(item.status));
        const auto [known, isFirst] = seen.emplace(item.status.st_ino, item.name);
        if (!isFirst) {
            text += " is " + known->second;
        } else if (S_ISLNK(item.status.st_mode)) {
            text += " -> " + fs::read_symlink(item.path).string();
        } else if (S_ISREG(item.status.st_mode) || S_ISDIR(item.status.st_mode)) {
            const FileDescriptor file(item.path.c_str(), O_RDONLY);
            text += " " + contentOf(file.get());
        }
        text += "]";
    }
    return text;
}

std::string heldIn(const Place& at) {
    std::string text;
    for (const FileDescriptor* const held : {&at.heldA, &at.heldB}) {
        struct stat status {};
        if (*held && ::fstat(held->get(), &status) == 0) {
            text += fmt::format(" held[{} {}]", described(status), contentOf(held->get()));
        }
    }
    return text;
}

// ---- Before the script -------------------------------------------------------------------------

void makeFile(const std::string& path, const std::string& content) {
    const FileDescriptor file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    EXPECT_EQ(file.write(content.data(), content.size()).bytes, content.size()) << path;
}

// Makes what the name stands for, and answers what a program has open of it.
FileDescriptor makeState(const Place& at, const char* name, std::string_view state) {
    const std::string path = at.at(name);
    const auto openFile = [name](const std::string& file, bool isRemoved) {
        makeFile(file, std::string("open ") + name);
        FileDescriptor held(file.c_str(), O_RDWR);
        EXPECT_TRUE(!isRemoved || ::unlink(file.c_str()) == 0) << file;
        return held;
    };
    if (state == "open" || state == "removed") {
        return openFile(path, state == "removed");
    }
    if (state.ends_with("directory")) {
        fs::create_directory(path);
    }
    if (state == "emptied directory") { // of a file that is open still
        return openFile(path + "/child", true);
    }
    if (state == "removed directory") {
        FileDescriptor held(path.c_str(), O_RDONLY | O_DIRECTORY);
        EXPECT_EQ(::rmdir(path.c_str()), 0);
        return held;
    }
    if (state == "full directory") {
        makeFile(path + "/child", "child");
    } else if (state == "link" || state == "dangling") {
        fs::create_symlink(state == "link" ? "target" : "nowhere", path);
        if (state == "link" && !fs::exists(at.at("target"))) {
            makeFile(at.at("target"), "target");
        }
    } else if (state == "fifo" || state == "device") {
        const mode_t type = state == "fifo" ? S_IFIFO : S_IFCHR;
        EXPECT_EQ(::mknod(path.c_str(), type | 0666, makedev(1, 3)), 0);
    } else if (state == "file" || state == "hard link") {
        makeFile(path, std::string("file ") + name);
        if (state == "hard link") {
            fs::create_hard_link(path, at.at("second ") + name);
        }
    }
    return {};
}

using Statuses = std::map<ino_t, struct stat>;

// Gives everything its owners and modes and, so that a change is seen, old times.
Statuses prepareSingle(const Script& script, const Place& at) {
    const auto give = [](const std::string& path, uid_t user, gid_t group, mode_t mode) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0) {
            EXPECT_EQ(::lchown(path.c_str(), user, group), 0);
            if (!S_ISLNK(status.st_mode)) {
                EXPECT_EQ(::chmod(path.c_str(), mode), 0);
            }
        }
    };
    give(at.a(), kOwner, kOwnersGroup, script.mode);
    const bool isOthers = std::string_view(script.b) == "open";
    give(at.b(), isOthers ? kOther : kOwner, isOthers ? kOthersGroup : kOwnersGroup,
         isOthers ? 0646 : 0755);
    give(at.at("target"), kOther, kOthersGroup, 0646);
    give(at.directory, script.parent->user, script.parent->group, script.parent->mode);
    const timespec old[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    const std::vector<Item> items = itemsIn(at.directory);
    for (const Item& item : items) {
        EXPECT_EQ(::utimensat(AT_FDCWD, item.path.c_str(), old, AT_SYMLINK_NOFOLLOW), 0);
    }
    Statuses before;
    for (const Item& item : itemsIn(at.directory)) {
        before[item.status.st_ino] = item.status;
    }
    return before;
}

// ---- The script, and what has changed -----------------------------------------------------------

bool isSame(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Which times have moved, and where to if that was asked for.
std::string changesSince(const Statuses& before, const Place& at) {
    constexpr time_t kAsked = 1'234'567'890; // and nothing later
    std::string text;
    for (const Item& item : itemsIn(at.directory)) {
        const timespec &modified = item.status.st_mtim, &changed = item.status.st_ctim;
        const auto old = before.find(item.status.st_ino);
        text += " " + item.name.substr(0, 40);
        if (old == before.end()) {
            text += " new";
            continue;
        }
        text += isSame(old->second.st_mtim, modified) ? "" : " mtime";
        text += modified.tv_sec > kAsked || isSame(old->second.st_mtim, modified)
                    ? ""
                    : fmt::format("={}.{}", modified.tv_sec, modified.tv_nsec);
        text += isSame(old->second.st_ctim, changed) ? "" : " ctime";
    }
    return text;
}

std::string runAs(const User& user, const Operation& operation, Place& at) {
    // What a user may do on a file system goes by the effective ids.
    const bool isUser =
        user.user == 0 || (::setgroups(user.further.size(), user.further.data()) == 0 &&
                           ::setegid(user.group) == 0 && ::seteuid(user.user) == 0);
    const int error = operation.run(at);
    const bool isRoot =
        user.user == 0 || (::seteuid(0) == 0 && ::setegid(0) == 0 && ::setgroups(0, nullptr) == 0);
    if (!isUser || !isRoot) {
        return "the user could not be changed";
    }
    return error == 0 ? "done" : ::strerrorname_np(error);
}

ScriptOutcome outcomeOf(const Script& script, const std::string& directory) {
    Place at{directory};
    fs::create_directory(directory);
    at.heldA = makeState(at, "a", script.a);
    at.heldB = makeState(at, "b", script.b);
    const Statuses before = script.isSingle() ? prepareSingle(script, at) : Statuses();
    ScriptOutcome outcome;
    for (const Operation* const operation : script.operations) {
        outcome.answers += runAs(*script.user, *operation, at) + " ";
    }
    if (script.isSingle()) {
        outcome.answers += changesSince(before, at);
    }
    outcome.answers += heldIn(at);
    outcome.tree = treeOf(directory);
    return outcome;
}

std::string directoryOf(const fs::path& root, size_t index) {
    return root / std::to_string(index);
}

} // namespace

std::vector<ScriptOutcome> outcomesOf(std::span<const Script> scripts, const fs::path& root) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        FILE* const out = ::fdopen(ends[1], "w");
        ::umask(022);
        for (size_t i = 0; i < scripts.size(); ++i) {
            const ScriptOutcome outcome = outcomeOf(scripts[i], directoryOf(root, i));
            std::fprintf(out, "%s\t%s\n", outcome.answers.c_str(), outcome.tree.c_str());
        }
        std::fclose(out);
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ::close(ends[1]);
    std::vector<ScriptOutcome> all;
    FILE* const in = ::fdopen(ends[0], "r");
    char* line = nullptr;
    size_t room = 0;
    while (::getline(&line, &room, in) > 0) {
        const std::string text(line);
        const size_t tab = text.find('\t');
        all.push_back({text.substr(0, tab), text.substr(tab + 1, text.size() - tab - 2)});
    }
    std::free(line);
    std::fclose(in);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(all.size(), scripts.size());
    return all;
}

std::vector<std::string> treesLeft(size_t count, const fs::path& root) {
    std::vector<std::string> trees;
    for (size_t i = 0; i < count; ++i) {
        trees.push_back(treeOf(directoryOf(root, i)));
    }
    return trees;
}

} // namespace tavelin::test
