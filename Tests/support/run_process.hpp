// Runs another program to its end and keeps what it printed.
#pragma once

#include <string>
#include <vector>

namespace tavelin::test {

struct ProcessResult {
    int status = -1; // exit code, or 128 + the signal's number
    std::string out;
    std::string err;

    bool ok() const { return status == 0; }
    std::string describe() const; // for assertion messages
};

// arguments[0] is looked up on PATH. `input` becomes its standard input.
// Throws std::system_error when it cannot be started.
ProcessResult run(const std::vector<std::string>& arguments, const std::string& input = {});

// As run(), but a non-zero exit throws std::runtime_error with what it printed.
std::string runOrThrow(const std::vector<std::string>& arguments, const std::string& input = {});

} // namespace tavelin::test
