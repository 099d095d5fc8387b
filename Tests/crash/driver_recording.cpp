#include "crash/driver_recording.hpp"

#include "hosting/module_host.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace tavelin::test {

namespace {

namespace fs = std::filesystem;

void must(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
}

void writeAt(const fs::path& path, off_t offset, std::size_t length) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    must(file >= 0, "open");
    const std::string content(length, 'w');
    must(::pwrite(file, content.data(), length, offset) == static_cast<ssize_t>(length), "write");
    must(::close(file) == 0, "close");
}

void setTimes(const fs::path& path) {
    const timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
    must(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "utimensat");
}

// By the operation's name; paths are those that the operation says it touches.
using Calls = std::map<std::string, std::function<void(const fs::path& root, const Operation&)>>;

void renameTouched(const fs::path& root, const Operation& operation) {
    fs::rename(root / operation.touches[0], root / operation.touches[1]);
}

const Calls& driverCalls() {
    static const Calls calls{
        {"create", [](auto& root, auto& op) { writeAt(root / op.touches[0], 0, 0); }},
        {"write", [](auto& root, auto& op) { writeAt(root / op.touches[0], 0, 20000); }},
        {"write much", [](auto& root, auto& op) { writeAt(root / op.touches[0], 0, 300000); }},
        {"append", [](auto& root, auto& op) { writeAt(root / op.touches[0], 9000, 9000); }},
        {"overwrite", [](auto& root, auto& op) { writeAt(root / op.touches[0], 3000, 5000); }},
        {"truncate down", [](auto& root, auto& op) { fs::resize_file(root / op.touches[0], 100); }},
        {"truncate up", [](auto& root, auto& op) { fs::resize_file(root / op.touches[0], 50000); }},
        {"mkdir", [](auto& root, auto& op) { fs::create_directory(root / op.touches[0]); }},
        {"rmdir", [](auto& root, auto& op) { fs::remove(root / op.touches[0]); }},
        {"unlink", [](auto& root, auto& op) { fs::remove(root / op.touches[0]); }},
        {"rename", renameTouched},
        {"rename over", renameTouched},
        {"rename across", renameTouched},
        {"rename back", renameTouched},
        {"rename inside", renameTouched},
        {"rename inside back", renameTouched},
        {"rename case", renameTouched},
        {"symlink",
         [](auto& root, auto& op) { fs::create_symlink("../stable/0", root / op.touches[0]); }},
        {"set stream",
         [](auto& root, auto& op) {
             const std::string value(3000, 's');
             must(::setxattr((root / op.touches[0]).c_str(), "user.note", value.data(),
                             value.size(), 0) == 0,
                  "setxattr");
         }},
        {"remove stream",
         [](auto& root, auto& op) {
             must(::removexattr((root / op.touches[0]).c_str(), "user.tag") == 0, "removexattr");
         }},
        {"set times", [](auto& root, auto& op) { setTimes(root / op.touches[0]); }},
        {"create many",
         [](auto& root, auto& op) {
             for (const std::string& path : op.touches) {
                 writeAt(root / path, 0, 100);
             }
         }},
        {"remove many",
         [](auto& root, auto& op) {
             for (const std::string& path : op.touches) {
                 fs::remove(root / path);
             }
         }},
    };
    return calls;
}

std::vector<DiskEvent> eventsIn(const fs::path& log) {
    const std::string raw = fs::exists(log) ? readFile(log) : "";
    std::vector<DiskEvent> events;
    for (std::size_t at = 0; at < raw.size();) {
        std::uint64_t head[2] = {};
        must(raw.size() - at >= sizeof head, "a recording cut short");
        std::memcpy(head, raw.data() + at, sizeof head);
        at += sizeof head;
        must(raw.size() - at >= head[1], "a recording cut short");
        DiskEvent event{head[1] == 0, head[0], Bytes(head[1])};
        std::memcpy(event.content.data(), raw.data() + at, head[1]);
        at += head[1];
        events.push_back(std::move(event));
    }
    return events;
}

Bytes load(const fs::path& image) {
    const std::string raw = readFile(image);
    Bytes bytes(raw.size());
    std::memcpy(bytes.data(), raw.data(), raw.size());
    return bytes;
}

Snapshot contentOf(Bytes image) {
    const ReplacedServices services;
    ModuleHost host(std::make_shared<RecordingResource>(std::move(image)));
    host.open();
    return takeSnapshot(host.volume());
}

// Tells when the driver has ended: it inherits the writing end of a pipe, and nobody else has it.
class Lifeline {
  public:
    Lifeline() {
        must(::pipe(ends_) == 0, "pipe");
        must(::fcntl(ends_[0], F_SETFD, FD_CLOEXEC) == 0, "fcntl");
    }
    ~Lifeline() {
        handedOver();
        ::close(ends_[0]);
    }
    Lifeline(const Lifeline&) = delete;
    Lifeline& operator=(const Lifeline&) = delete;

    void handedOver() {
        if (ends_[1] >= 0) {
            ::close(std::exchange(ends_[1], -1));
        }
    }
    void awaitEnd() const {
        char byte = 0;
        must(::read(ends_[0], &byte, 1) == 0, "waiting for the driver");
    }

  private:
    int ends_[2] = {-1, -1};
};

// The driver, mounted for this object's lifetime over an image of its own.
class MountedDriver {
  public:
    explicit MountedDriver(const Bytes& base) {
        writeFile(image(), std::string(reinterpret_cast<const char*>(base.data()), base.size()));
        fs::create_directory(root());
        runOrThrow({"env", "LD_PRELOAD=" WRITE_RECORDER,
                    "TAVELIN_RECORDED_IMAGE=" + image().string(),
                    "TAVELIN_RECORDING=" + log().string(), "ntfs-3g", image().string(),
                    root().string(), "-o", "noatime,streams_interface=xattr"});
        lifeline_.handedOver();
        isMounted_ = true;
    }
    ~MountedDriver() {
        if (isMounted_) {
            (void)run({"fusermount3", "-u", "-z", root().string()});
        }
    }
    MountedDriver(const MountedDriver&) = delete;
    MountedDriver& operator=(const MountedDriver&) = delete;

    // The driver goes on writing after umount has returned, and takes no lock to wait for.
    void unmount() {
        isMounted_ = false;
        runOrThrow({"umount", root().string()});
        lifeline_.awaitEnd();
    }
    // Through any of its files: the driver flushes the whole device.
    void synchronise() const {
        const int file = ::open((root() / "stable/0").c_str(), O_RDONLY);
        must(file >= 0 && ::fsync(file) == 0, "fsync");
        ::close(file);
    }

    fs::path root() const { return directory_.path() / "root"; }
    fs::path image() const { return directory_.path() / "image"; }
    fs::path log() const { return directory_.path() / "log"; }

  private:
    const TempDirectory directory_;
    Lifeline lifeline_;
    bool isMounted_ = false;
};

} // namespace

std::optional<Recording> recordDriver(const Bytes& base, const Script& script) {
    const Operation& operation = *script.operations.front();
    const auto call = driverCalls().find(operation.name);
    if (script.operations.size() != 1 || script.finish == Finish::nothing ||
        call == driverCalls().end()) {
        return std::nullopt;
    }
    MountedDriver driver(base);
    Recording recording;
    recording.persistedAt = {0, SIZE_MAX};
    call->second(driver.root(), operation);
    if (script.finish == Finish::synchronise) {
        driver.synchronise();
        recording.persistedAt[1] = eventsIn(driver.log()).size();
    }
    driver.unmount();
    recording.events = eventsIn(driver.log());
    if (script.finish == Finish::unmount) {
        recording.persistedAt[1] = recording.events.size();
    } else {
        recording.events.resize(recording.persistedAt[1]);
    }
    recording.states = {contentOf(base), contentOf(load(driver.image()))};
    return recording;
}

} // namespace tavelin::test
