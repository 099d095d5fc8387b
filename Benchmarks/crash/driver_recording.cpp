#include "Benchmarks/crash/driver_recording.hpp"

#include "platform/file_descriptor.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
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

// The operation by the calls of a program; false where the driver offers none.
bool carryOut(const fs::path& root, const Operation& op) {
    const fs::path path = root / op.path;
    const std::string data = pattern(op.seed, op.other);
    switch (op.verb) {
    case Verb::create:
        writeFile(path, "");
        return true;
    case Verb::write: {
        const FileDescriptor file(path.c_str(), O_WRONLY);
        must(::pwrite(file.get(), data.data(), data.size(), op.number) == op.other, "write");
        return true;
    }
    case Verb::truncate:
        fs::resize_file(path, static_cast<std::uintmax_t>(op.number));
        return true;
    case Verb::mkdir:
        fs::create_directory(path);
        return true;
    case Verb::remove:
        fs::remove(path);
        return true;
    case Verb::rename:
        fs::rename(path, root / op.text);
        return true;
    case Verb::symlink:
        fs::create_symlink(op.text, path);
        return true;
    case Verb::setStream: {
        const std::string name = "user." + op.text;
        must((op.other == 0
                  ? ::removexattr(path.c_str(), name.c_str())
                  : ::setxattr(path.c_str(), name.c_str(), data.data(), data.size(), 0)) == 0,
             "xattr");
        return true;
    }
    case Verb::times: {
        const timespec times[2] = {{0, UTIME_OMIT}, {op.number, op.other}};
        must(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "utimensat");
        return true;
    }
    default:
        return false;
    }
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
        writeFile(image(), textOf(base));
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
        const FileDescriptor file((root() / "stable/0").c_str(), O_RDONLY);
        must(::fsync(file.get()) == 0, "fsync");
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
    const auto& operations = script.changes.front()->operations;
    if (script.changes.size() != 1 || script.finish == Finish::nothing || operations.empty()) {
        return std::nullopt;
    }
    MountedDriver driver(base);
    Recording recording;
    recording.persistedAt = {0, SIZE_MAX};
    for (const Operation& operation : operations) {
        must(carryOut(driver.root(), operation), "an operation that the driver does not offer");
    }
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
    const ReplacedServices services;
    recording.states = {contentOf(base), contentOf(loadImage(driver.image()))};
    return recording;
}

} // namespace tavelin::test
