#include "hosts/fuse/mount/served_mount.hpp"

#include "hosting/image_use.hpp"
#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/protocol/server_identity.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <set>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

struct Answer {
    int error = 0;
    pid_t server = 0;
};

// "user_id=1000,group_id=1000".
std::optional<uid_t> ownerIn(const std::string& options, std::string_view name) {
    const size_t at = options.find(name);
    uid_t owner = 0;
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const char* const begin = options.data() + at + name.size();
    const auto [end, error] = std::from_chars(begin, options.data() + options.size(), owner);
    return error == std::errc() ? std::optional(owner) : std::nullopt;
}

// What a mount's server is asked besides who it is.
enum class Wish { nothing, synchronize };

Answer ask(const std::filesystem::path& directory, Wish wish) {
    Answer answer;
    const FileDescriptor root(directory.c_str(), O_RDONLY | O_DIRECTORY);
    if (!root || (wish == Wish::synchronize && ::fsync(root.get()) != 0)) {
        answer.error = errno;
        return answer;
    }
    char text[64];
    const ssize_t size = ::fgetxattr(root.get(), kServerAttribute, text, sizeof text);
    if (size > 0) {
        answer.server = serverOf({text, static_cast<size_t>(size)});
    }
    return answer;
}

// Whom the kernel lets into a mount besides those that allow_other does; absent for oneself.
struct User {
    uid_t user;
    gid_t group;
};

std::optional<User> otherOwnerOf(const MountEntry& mount) {
    const auto user = ownerIn(mount.superOptions, "user_id=");
    const auto group = ownerIn(mount.superOptions, "group_id=");
    const bool other = ::geteuid() == 0 && user.value_or(0) != 0 && group;
    return other ? std::optional(User{*user, *group}) : std::nullopt;
}

bool become(const User& other) {
    return ::setgroups(0, nullptr) == 0 &&
           ::setresgid(other.group, other.group, other.group) == 0 &&
           ::setresuid(other.user, other.user, other.user) == 0;
}

// A question to a mount's server that a child process waits with. The kernel keeps even root out of
// another user's mount: a child that has become that user gets in, and this process could not
// become root again. And the server may never answer: nothing ends a wait for it, so the child has
// nothing open that anybody waits for.
class Question {
  public:
    Question(const MountEntry& mount, Wish wish) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        reading_.reset(ends[0]);
        const FileDescriptor writing(ends[1]);
        const std::optional<User> other = otherOwnerOf(mount);
        child_ = ::fork();
        if (child_ == 0) {
            ::dup2(writing.get(), 0);
            ::close_range(1, ~0u, 0);
            if (!other || become(*other)) {
                const Answer answer = ask(mount.directory, wish);
                (void)!::write(0, &answer, sizeof answer);
            }
            ::_exit(0);
        }
    }
    Question(Question&& other) noexcept
        : child_(std::exchange(other.child_, -1)), reading_(std::move(other.reading_)) {}
    Question& operator=(Question&&) = delete;
    ~Question() {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            (void)::waitpid(child_, nullptr, WNOHANG); // what cannot end yet, the system buries
        }
    }

    // Waits until `limit`. ETIMEDOUT when there was no answer by then.
    Answer answer(std::optional<Clock::time_point> limit) {
        Answer answer{.error = EACCES};
        if (child_ <= 0) {
            return answer;
        }
        using std::chrono::milliseconds;
        const auto left = [limit] {
            const auto rest = std::chrono::ceil<milliseconds>(*limit - Clock::now());
            return static_cast<int>(std::max(rest, milliseconds(0)).count());
        };
        pollfd ready{reading_.get(), POLLIN, 0};
        if (uninterrupted([&] { return ::poll(&ready, 1, limit ? left() : -1); }) == 0) {
            answer.error = ETIMEDOUT;
            return answer;
        }
        (void)reading_.readSome(&answer, sizeof answer); // one small write is read whole
        (void)uninterrupted([this] { return ::waitpid(child_, nullptr, 0); });
        child_ = -1;
        return answer;
    }

  private:
    pid_t child_ = -1;
    FileDescriptor reading_;
};

Answer askServer(const MountEntry& mount, Wish wish) {
    return otherOwnerOf(mount) ? Question(mount, wish).answer(std::nullopt)
                               : ask(mount.directory, wish);
}

// Of a loop device the file that it shows; of anything else itself.
std::filesystem::path imageOf(const MountEntry& mount) {
    const std::filesystem::path source = mount.source;
    std::ifstream shown("/sys/block" / source.filename() / "loop/backing_file");
    std::string file;
    return source.parent_path() == "/dev" && std::getline(shown, file) ? std::filesystem::path(file)
                                                                       : source;
}

bool isIn(const std::vector<MountEntry>& table, const MountEntry& mount) {
    return std::ranges::any_of(table, [&](const MountEntry& entry) {
        return entry.device == mount.device && entry.type == mount.type;
    });
}

// Looks through the namespaces of all processes that this one may look at: for root, all.
bool isMountedInANamespace(const MountEntry& mount) {
    std::set<fs::path> seen;
    std::error_code failed;
    for (fs::directory_iterator process("/proc", failed), end; !failed && process != end;
         process.increment(failed)) {
        std::error_code hidden; // or no process, or one that has ended
        const fs::path space = fs::read_symlink(process->path() / "ns/mnt", hidden);
        if (!hidden && seen.insert(space).second &&
            isIn(mountTable(process->path() / "mountinfo"), mount)) {
            return true;
        }
    }
    return false;
}

} // namespace

ServedMount::ServedMount(const MountEntry& mount) : mount_(mount) {
    const Answer answer = askServer(mount, mount.readOnly ? Wish::nothing : Wish::synchronize);
    synchronizeError_ = answer.error;
    if (answer.server > 0) {
        server_ = FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, answer.server, 0)));
    }
}

bool isOurs(const MountEntry& mount) noexcept {
    return mount.type.ends_with(".tavelin");
}

bool ServedMount::isMountedElsewhere() const {
    if (isIn(mountTable(), mount_)) {
        return true;
    }
    // Of mounts in other namespaces, the list of connections knows, where it is mounted itself. It
    // has each by its device number for as long as the file system is mounted anywhere.
    const fs::path connections = "/sys/fs/fuse/connections";
    std::error_code unknown;
    if (fs::is_empty(connections, unknown) || unknown) {
        return isMountedInANamespace(mount_);
    }
    unsigned major = 0;
    unsigned minor = 0;
    if (std::sscanf(mount_.device.c_str(), "%u:%u", &major, &minor) != 2) {
        return false;
    }
    constexpr unsigned kMinorBits = 20;
    return fs::exists(connections / std::to_string(major << kMinorBits | minor), unknown);
}

bool ServedMount::awaitServer() const {
    constexpr int kServerEndMax = 60'000; // milliseconds; everything has been written before
    pollfd ended{server_.get(), POLLIN, 0};
    return !server_ || uninterrupted([&] { return ::poll(&ended, 1, kServerEndMax); }) != 0;
}

std::vector<MountOfImage> synchronizeMountsOf(const std::filesystem::path& image) {
    std::vector<MountOfImage> mounts;
    for (const MountEntry& entry : mountsOf(image)) {
        if (isOurs(entry)) {
            mounts.push_back({entry.directory, ServedMount(entry).synchronize()});
        }
    }
    return mounts;
}

std::vector<ServedVolume> servedVolumes() {
    constexpr std::chrono::seconds kAnswerMax{5};
    std::vector<std::pair<MountEntry, Question>> asked;
    for (MountEntry& entry : mountTable()) {
        if (isOurs(entry)) {
            Question question(entry, Wish::nothing);
            asked.emplace_back(std::move(entry), std::move(question));
        }
    }
    const Clock::time_point limit = Clock::now() + kAnswerMax; // of all together
    std::vector<ServedVolume> volumes;
    for (auto& [entry, question] : asked) {
        const Answer answer = question.answer(limit);
        volumes.push_back({.image = imageOf(entry),
                           .directory = entry.directory,
                           .readOnly = entry.readOnly || entry.superReadOnly,
                           .server = answer.server,
                           .error = answer.error});
    }
    return volumes;
}

} // namespace tavelin::fusehost
