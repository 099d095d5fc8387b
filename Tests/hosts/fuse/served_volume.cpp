#include "hosts/fuse/served_volume.hpp"

#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/tree.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/services.hpp"
#include "support/run_process.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::test {

namespace fs = std::filesystem;

namespace {

// On standard output, which the server leaves open and has nothing to say on.
class PrintedLog final : public SystemLog {
  public:
    bool isEnabled(LogLevel, std::string_view, std::string_view) override { return true; }
    void write(LogLevel, std::string_view, std::string_view,
               std::string_view message) noexcept override {
        (void)::dprintf(STDOUT_FILENO, "%.*s\n", static_cast<int>(message.size()), message.data());
    }
};

// Becomes the server; does not return.
[[noreturn]] void serve(const fs::path& image, const fs::path& directory,
                        const std::string& options, const fs::path& log) {
    for (const auto& [name, descriptor] :
         {std::pair("err", STDERR_FILENO), std::pair("log", STDOUT_FILENO)}) {
        ::dup2(::open((log / name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), descriptor);
    }
    // What the test has open is not the server's; least of all files on the volume that it serves.
    ::close_range(STDERR_FILENO + 1, ~0u, 0);
    Services own = *services();
    own.systemLog = std::make_shared<PrintedLog>();
    installServices(std::move(own));
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that is ended takes its server along
    fusehost::MountRequest request;
    request.image = image;
    request.directory = directory;
    request.foreground = true;
    for (const std::string& word : fusehost::applyOptions(options, request)) {
        if (word == "trace") {
            request.trace = true;
        }
    }
    std::_Exit(fusehost::mountVolume(request));
}

int statusOf(int waited) {
    return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
}

} // namespace

std::string whyNoMounts() {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) {
        return "/dev/fuse cannot be used here";
    }
    return {};
}

ServedVolume::ServedVolume(const fs::path& image, const std::string& options) {
    const FileDescriptor mounts("/proc/self/mountinfo", O_RDONLY);
    server_ = ::fork();
    if (server_ == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (server_ == 0) {
        serve(image, directory(), options, log_.path());
    }
    // The kernel flags every change of the mount table on this descriptor.
    bool ended = false;
    while (!ended && !fusehost::findMount(directory())) {
        pollfd change{mounts.get(), POLLPRI, 0};
        (void)::poll(&change, 1, 50);
        siginfo_t end{};
        ::waitid(P_PID, static_cast<id_t>(server_), &end, WEXITED | WNOHANG | WNOWAIT);
        ended = end.si_pid == server_;
    }
    if (ended) {
        awaitEnd();
        throw std::runtime_error(printed());
    }
}

ServedVolume::~ServedVolume() {
    unmount();
}

int ServedVolume::awaitEnd() {
    if (server_ == -1) {
        return 0;
    }
    int status = 0;
    while (::waitpid(server_, &status, 0) == -1 && errno == EINTR) {
    }
    server_ = -1;
    return statusOf(status);
}

int ServedVolume::unmount() {
    if (server_ != -1 && ::umount2(directory().c_str(), 0) != 0) {
        ADD_FAILURE() << "umount: " << std::generic_category().message(errno) << "\n" << printed();
        crash();
    }
    return awaitEnd();
}

void ServedVolume::crash() {
    ::kill(server_, SIGKILL);
    awaitEnd();
    ::umount2(directory().c_str(), MNT_DETACH);
}

Descriptor::Descriptor(const fs::path& path, int flags) : file_(path.c_str(), flags, 0666) {
    EXPECT_TRUE(file_) << path << ": " << std::generic_category().message(errno);
}

std::string Descriptor::read(size_t most) const {
    std::string text(most, 0);
    const FileDescriptor::Transferred got = file_.readAt(text.data(), most, 0);
    EXPECT_EQ(got.error, 0);
    return text.substr(0, got.bytes);
}

struct stat Descriptor::status() const {
    struct stat status {};
    EXPECT_EQ(::fstat(file_.get(), &status), 0) << std::generic_category().message(errno);
    return status;
}

void MountTest::SetUp() {
    if (const std::string why = whyNoMounts(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    mountFresh(bytes_, options_);
}

void MountTest::mountFresh(uint64_t bytes, const std::string& options) {
    served_.reset();
    volume_ = std::make_unique<SampleVolume>(VolumeGeometry{.bytes = bytes});
    mount(options);
}

void MountTest::mount(const std::string& options) {
    served_.reset();
    served_ = std::make_unique<ServedVolume>(volume_->image(), options);
}

struct stat MountTest::statusOf(const std::string& name) const {
    struct stat status {};
    EXPECT_EQ(::lstat(path(name).c_str(), &status), 0) << std::generic_category().message(errno);
    return status;
}

MountTest::Names MountTest::names(const std::string& directory) const {
    Names found;
    for (const fs::directory_entry& entry : fs::directory_iterator(*this / directory)) {
        found.push_back(entry.path().filename());
    }
    std::sort(found.begin(), found.end());
    return found;
}

off_t MountTest::fillVolume(bool records) const {
    const Descriptor large(*this / "large", O_WRONLY | O_CREAT);
    off_t size = 0;
    // A write for which there is no room changes nothing, so the rest is filled piece by piece.
    for (std::string block(64 << 10, 'b'); !block.empty(); block.resize(block.size() / 2)) {
        ssize_t done = 0;
        while ((done = ::pwrite(large, block.data(), block.size(), size)) > 0) {
            size += done;
        }
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(::fsync(large), 0) << "what was accepted can be kept";
    for (int i = 0; records; ++i) {
        if (::mkdir(path("d" + std::to_string(i)).c_str(), 0777) != 0) {
            EXPECT_EQ(errno, ENOSPC);
            break;
        }
    }
    return size;
}

void MountTest::TearDown() {
    if (served_) {
        EXPECT_EQ(served_->unmount(), 0) << served_->printed();
        served_.reset();
    }
    if (volume_) {
        EXPECT_NO_THROW(volume_->check());
    }
}

void MountTest::changeByDriver(const std::function<void(const DriverMount&)>& change) {
    served_.reset();
    change(DriverMount(*volume_));
    mount();
}

void MountTest::addAliased(const DriverMount& driver) {
    driver.make("a long name.txt", "content");
    driver.set("a long name.txt", "system.ntfs_dos_name", "ALONGN~1.TXT");
}

void expectToLast(const SampleVolume& volume, std::unique_ptr<ServedVolume>& served) {
    const Tree before = readTree(served->directory());
    EXPECT_EQ(served->unmount(), 0) << served->printed();
    EXPECT_NO_THROW(volume.check());
    served = std::make_unique<ServedVolume>(volume.image());
    EXPECT_EQ(firstDifference(before, readTree(served->directory())), "") << "in a second mount";
    EXPECT_EQ(served->unmount(), 0);

    const TempDirectory directory;
    runOrThrow({"ntfs-3g", "-o", "ro,efs_raw", volume.image(), directory.path()});
    EXPECT_EQ(firstDifference(before, readTree(directory.path())), "") << "through ntfs-3g";
    ::umount2(directory.path().c_str(), 0);
    served = std::make_unique<ServedVolume>(volume.image());
}

} // namespace tavelin::test
