// The program under test, and what tests compare around a run of it.
#pragma once

#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace tavelin::test {

// Exit status of a command that failed with a message.
inline constexpr int kFailed = 1;

// Runs the built `tavelin` with these words; `input` becomes its standard input.
ProcessResult tavelinRun(std::vector<std::string> words, const std::string& input = {});
// As above, but the test fails when it does not answer 0. Answers standard output.
std::string tavelinDone(std::vector<std::string> words, const std::string& input = {});
// What `--json` adds to the command's words prints as its items.
nlohmann::json tavelinItems(std::vector<std::string> words);

// Expects exit status `status`, one line "tavelin: …" with `hint` in it on standard error, and
// nothing on standard output.
void expectRefusal(const ProcessResult& result, int status, const std::string& hint);

// A started `tavelin`, for those that do not end by themselves.
struct RunningTavelin : RunningProcess {
    explicit RunningTavelin(std::vector<std::string> words);
};

} // namespace tavelin::test
