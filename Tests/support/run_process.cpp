#include "support/run_process.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

extern char** environ;

namespace tavelin::test {
namespace {

struct Pipe {
    FileDescriptor reading, writing;
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        reading.reset(ends[0]);
        writing.reset(ends[1]);
    }
};

// Administrators' tools (mkntfs, ntfsfix) live outside an ordinary user's PATH.
std::string searchPath() {
    const char* path = std::getenv("PATH");
    return std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin";
}

std::string locate(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    std::istringstream directories(searchPath());
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string candidate = directory + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return {};
}

std::string readAll(const FileDescriptor& end) {
    std::string text;
    std::array<char, 65536> buffer{};
    while (const std::size_t count = end.readSome(buffer.data(), buffer.size()).bytes) {
        text.append(buffer.data(), count);
    }
    return text;
}

} // namespace

std::string ProcessResult::describe() const {
    return "exit status " + std::to_string(status) + "\n" + out + err;
}

RunningProcess::RunningProcess(const std::vector<std::string>& arguments) {
    const std::string program = locate(arguments.at(0));
    if (program.empty()) {
        throw std::system_error(ENOENT, std::generic_category(), arguments[0]);
    }
    Pipe in, out, err;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in.reading.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out.writing.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, err.writing.get(), STDERR_FILENO);
    // A child that exits without reading its input must not take the test down with SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t defaults;
    ::sigemptyset(&defaults);
    // Also the two that a shell has its background jobs ignore.
    for (const int signal : {SIGPIPE, SIGINT, SIGQUIT}) {
        ::sigaddset(&defaults, signal);
    }
    ::posix_spawnattr_setsigdefault(&attributes, &defaults);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const int failure =
        ::posix_spawn(&process_, program.c_str(), &actions, &attributes, argv.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) {
        process_ = -1;
        throw std::system_error(failure, std::generic_category(), program);
    }
    input_ = std::move(in.writing);
    output_ = std::move(out.reading);
    errors_ = std::move(err.reading);
}

RunningProcess::~RunningProcess() {
    if (process_ > 0) {
        signal(SIGKILL);
        ::waitpid(process_, nullptr, 0);
    }
}

std::string RunningProcess::readLine() {
    std::array<char, 4096> piece{};
    size_t end = 0;
    while ((end = pending_.find('\n')) == std::string::npos) {
        const size_t count = output_.readSome(piece.data(), piece.size()).bytes;
        if (count == 0) {
            return {};
        }
        pending_.append(piece.data(), count);
    }
    std::string line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    return line;
}

void RunningProcess::write(const std::string& bytes) {
    if (const int error = input_.write(bytes.data(), bytes.size()).error; error != 0) {
        throw std::system_error(error, std::generic_category(), "write to a program");
    }
}

void RunningProcess::signal(int number) const {
    ::kill(process_, number);
}

ProcessResult RunningProcess::finish(const std::string& input) {
    ProcessResult result;
    // Both at once with the input, so that no full pipe stops the child.
    auto said = std::async(std::launch::async, [&] { return pending_ + readAll(output_); });
    auto complained = std::async(std::launch::async, [&] { return readAll(errors_); });
    static_cast<void>(input_.write(input.data(), input.size())); // it need not read all of it
    input_.reset();
    result.out = said.get();
    result.err = complained.get();
    int status = 0;
    if (uninterrupted([&] { return ::waitpid(process_, &status, 0); }) < 0) {
        throw std::system_error(errno, std::generic_category(), "waitpid");
    }
    process_ = -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

ProcessResult run(const std::vector<std::string>& arguments, const std::string& input) {
    return RunningProcess(arguments).finish(input);
}

std::string runOrThrow(const std::vector<std::string>& arguments, const std::string& input) {
    ProcessResult result = run(arguments, input);
    if (!result.ok()) {
        throw std::runtime_error(arguments[0] + ": " + result.describe());
    }
    return std::move(result.out);
}

} // namespace tavelin::test
