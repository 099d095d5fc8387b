// Runs another program to its end and keeps what it printed.
#pragma once

#include "platform/file_descriptor.hpp"

#include <string>
#include <sys/types.h>
#include <vector>

namespace tavelin::test {

struct ProcessResult {
    int status = -1; // exit code, or 128 + the signal's number
    std::string out;
    std::string err;

    bool ok() const { return status == 0; }
    std::string describe() const; // for assertion messages
};

// A started program, for those that do not end by themselves. Killed in the end.
class RunningProcess {
  public:
    // arguments[0] is looked up on PATH. Throws std::system_error when it cannot be started.
    explicit RunningProcess(const std::vector<std::string>& arguments);
    ~RunningProcess();
    RunningProcess(const RunningProcess&) = delete;
    RunningProcess& operator=(const RunningProcess&) = delete;

    pid_t id() const { return process_; }
    // The next line of its standard output; empty at its end.
    std::string readLine();
    // To its standard input; returns once all is in the pipe. Throws std::system_error.
    void write(const std::string& bytes);
    void signal(int number) const;
    // Writes the last of its input and waits for its end; `out` is what was not read before.
    ProcessResult finish(const std::string& input = {});

  private:
    pid_t process_ = -1;
    FileDescriptor input_, output_, errors_;
    std::string pending_;
};

// arguments[0] is looked up on PATH. `input` becomes its standard input.
// Throws std::system_error when it cannot be started.
ProcessResult run(const std::vector<std::string>& arguments, const std::string& input = {});

// As run(), but a non-zero exit throws std::runtime_error with what it printed.
std::string runOrThrow(const std::vector<std::string>& arguments, const std::string& input = {});

} // namespace tavelin::test
