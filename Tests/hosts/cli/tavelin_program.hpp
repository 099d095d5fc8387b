// The program under test, and what tests compare around a run of it.
#pragma once

#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace tavelin::test {

// Runs the built `tavelin` with these words; `input` becomes its standard input.
ProcessResult tavelinRun(std::vector<std::string> words, const std::string& input = {});
// As above, but the test fails when it does not answer 0. Answers standard output.
std::string tavelinDone(std::vector<std::string> words, const std::string& input = {});

// Expects exit status `status`, one line "tavelin: …" with `hint` in it on standard error, and
// nothing on standard output.
void expectRefusal(const ProcessResult& result, int status, const std::string& hint);

// A started `tavelin`, for those that do not end by themselves. Killed at the end of the test.
class RunningTavelin {
  public:
    explicit RunningTavelin(std::vector<std::string> words);
    ~RunningTavelin();
    RunningTavelin(const RunningTavelin&) = delete;
    RunningTavelin& operator=(const RunningTavelin&) = delete;

    // The next line of its standard output; empty at its end.
    std::string readLine();
    // To its standard input; returns once all is in the pipe.
    void write(const std::string& bytes);
    void signal(int number);
    // Closes its standard input and waits for its end; `out` is what was not read before.
    ProcessResult finish();

  private:
    int process_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::string pending_;
};

} // namespace tavelin::test
