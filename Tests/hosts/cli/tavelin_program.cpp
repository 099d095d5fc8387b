#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::test {
namespace {

std::string readAll(int descriptor) {
    std::string text;
    char piece[4096];
    for (ssize_t count; (count = read(descriptor, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(count));
    }
    return text;
}

} // namespace

ProcessResult tavelinRun(std::vector<std::string> words, const std::string& input) {
    words.insert(words.begin(), TAVELIN_PROGRAM);
    return run(words, input);
}

std::string tavelinDone(std::vector<std::string> words, const std::string& input) {
    const ProcessResult result = tavelinRun(std::move(words), input);
    EXPECT_TRUE(result.ok()) << result.describe();
    EXPECT_EQ(result.err, "");
    return result.out;
}

void expectRefusal(const ProcessResult& result, int status, const std::string& hint) {
    EXPECT_EQ(result.status, status) << result.describe();
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("tavelin: ")) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_NE(result.err.find(hint), std::string::npos) << result.err << "lacks: " << hint;
}

RunningTavelin::RunningTavelin(std::vector<std::string> words) {
    words.insert(words.begin(), TAVELIN_PROGRAM);
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 ||
        (process_ = fork()) < 0) {
        throw std::system_error(errno, std::generic_category(), "start tavelin");
    }
    if (process_ == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(arguments.front(), arguments.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    input_ = in[1];
    output_ = out[0];
    errors_ = err[0];
    std::signal(SIGPIPE, SIG_IGN);
}

RunningTavelin::~RunningTavelin() {
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    for (const int descriptor : {input_, output_, errors_}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

std::string RunningTavelin::readLine() {
    char piece[4096];
    for (std::size_t end; (end = pending_.find('\n')) == std::string::npos;) {
        const ssize_t count = read(output_, piece, sizeof piece);
        if (count <= 0) {
            return {};
        }
        pending_.append(piece, static_cast<std::size_t>(count));
    }
    const std::size_t end = pending_.find('\n');
    std::string line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    return line;
}

void RunningTavelin::write(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(input_, bytes.data() + done, bytes.size() - done);
        if (count < 0) {
            throw std::system_error(errno, std::generic_category(), "write to tavelin");
        }
        done += static_cast<std::size_t>(count);
    }
}

void RunningTavelin::signal(int number) {
    kill(process_, number);
}

ProcessResult RunningTavelin::finish() {
    close(std::exchange(input_, -1));
    ProcessResult result;
    result.out = pending_ + readAll(output_);
    result.err = readAll(errors_);
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace tavelin::test
