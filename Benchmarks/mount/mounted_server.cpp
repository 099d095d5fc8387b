#include "Benchmarks/mount/mounted_server.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace tavelin::bench {

namespace fs = std::filesystem;

Server tavelinServer(const fs::path& program) {
    return {"tavelin", Role::ours, [program](const fs::path& store, const fs::path& directory) {
                return std::vector<std::string>{program, "mount", store, directory, "--foreground"};
            }};
}

Server earlierServer(const fs::path& program) {
    return {"before", Role::before, [program](const fs::path& store, const fs::path& directory) {
                // Some builds kept the processors awake unless they were told not to.
                return std::vector<std::string>{program,        "mount", store,       directory,
                                                "--foreground", "-o",    "power_save"};
            }};
}

Server driverServer(const std::string& program) {
    return {program, Role::driver, [program](const fs::path& store, const fs::path& directory) {
                return std::vector<std::string>{program, store, directory, "-o",
                                                fmt::format("{},no_detach", kDriverOptions)};
            }};
}

Server floorServer(const fs::path& program) {
    return {"pass-through", Role::floor,
            [program](const fs::path& store, const fs::path& directory) {
                return std::vector<std::string>{
                    program, "-f", "-o",
                    fmt::format("source={},cache=always,writeback", store.string()), directory};
            }};
}

namespace {

dev_t deviceOf(const fs::path& directory) {
    struct stat found {};
    if (::stat(directory.c_str(), &found) != 0)
        throw std::runtime_error(fmt::format("{}: {}", directory.string(), std::strerror(errno)));
    return found.st_dev;
}

// Starts a server that reads nothing and says what it has to say into `output`.
pid_t start(const std::vector<std::string>& command, int output) {
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == -1)
        throw std::runtime_error(fmt::format("fork: {}", std::strerror(errno)));
    if (child == 0) {
        const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        ::dup2(null, STDIN_FILENO);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(output, STDERR_FILENO);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    return child;
}

} // namespace

MountedServer::MountedServer(const Server& server, const fs::path& store, const fs::path& directory)
    : name_(server.name), directory_(directory) {
    const int mounts = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    const dev_t before = deviceOf(directory_);
    output_ = ::memfd_create("server-output", MFD_CLOEXEC);
    child_ = start(server.command(store, directory_), output_);
    // The kernel flags every change of the mount table on this descriptor.
    while (deviceOf(directory_) == before) {
        pollfd change{mounts, POLLPRI, 0};
        (void)::poll(&change, 1, 20);
        int status = 0;
        if (::waitpid(child_, &status, WNOHANG) == child_) {
            child_ = -1;
            ::close(mounts);
            const std::string why = said();
            ::close(output_);
            throw std::runtime_error(
                fmt::format("{} did not mount {}: {}", name_, store.string(), why));
        }
    }
    ::close(mounts);
}

MountedServer::~MountedServer() {
    try {
        unmount();
    } catch (const std::exception&) {
        // Only reached while another failure is already on its way out.
    }
    ::close(output_);
}

std::string MountedServer::said() const {
    std::string text(static_cast<size_t>(::lseek(output_, 0, SEEK_END)), 0);
    (void)!::pread(output_, text.data(), text.size(),
                   0); // for a message; none is no reason to fail
    return text;
}

void MountedServer::unmount() {
    if (child_ == -1)
        return;
    for (int attempt = 0; ::umount2(directory_.c_str(), 0) != 0; ++attempt) {
        // A program that has just exited may hold the directory a moment longer.
        if (errno != EBUSY || attempt == 100) {
            const std::string why = std::strerror(errno);
            ::umount2(directory_.c_str(), MNT_DETACH);
            ::kill(child_, SIGTERM);
            ::waitpid(child_, nullptr, 0);
            child_ = -1;
            throw std::runtime_error(fmt::format("umount {}: {}", directory_.string(), why));
        }
        ::usleep(10'000);
    }
    int status = 0;
    ::waitpid(child_, &status, 0);
    child_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(fmt::format("{} ended with status {}: {}", name_, status, said()));
}

clockid_t MountedServer::processorClock() const {
    clockid_t clock{};
    if (const int error = ::clock_getcpuclockid(child_, &clock); error != 0)
        throw std::runtime_error(fmt::format("{}: {}", name_, std::strerror(error)));
    return clock;
}

double MountedServer::processorTime() const {
    timespec taken{};
    if (::clock_gettime(processorClock(), &taken) != 0)
        throw std::runtime_error(fmt::format("{}: {}", name_, std::strerror(errno)));
    return static_cast<double>(taken.tv_sec) + static_cast<double>(taken.tv_nsec) * 1e-9;
}

uint64_t MountedServer::peakMemory() const {
    std::ifstream status(fmt::format("/proc/{}/status", child_));
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::stoull(line.substr(6)) * 1024;
    throw std::runtime_error(fmt::format("no memory figure for {}", name_));
}

} // namespace tavelin::bench
