// The program under test, and what tests compare around a run of it.
#pragma once

#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::test {

// Exit status of a command that failed with a message.
inline constexpr int kFailed = 1;

// Runs the built `tavelin` with these words; `input` becomes its standard input.
ProcessResult tavelinRun(std::vector<std::string> words, const std::string& input = {});
// The same from a script of `sh`, in which the program and its words are "$@".
ProcessResult tavelinUnder(const std::string& script, const std::vector<std::string>& words);
// As tavelinRun, but the test fails when it does not answer 0. Answers standard output.
std::string tavelinDone(std::vector<std::string> words, const std::string& input = {});
// What `--json` adds to the command's words prints as its items.
nlohmann::json tavelinItems(std::vector<std::string> words);

// Of each item one member by another: {"/a": "file", "/b": "symlink"} for "path" and "type".
nlohmann::json columnOf(const nlohmann::json& items, const char* key, const char* value);

// Expects exit status `status`, one line "tavelin: …" with `hint` in it on standard error, and
// nothing on standard output.
void expectRefusal(const ProcessResult& result, int status, const std::string& hint);

// A volume for the commands of one test, and a directory of the host's.
class CommandTest : public ::testing::Test {
  protected:
    // Makes files of the volume, by their paths and contents.
    void put(const std::vector<std::pair<std::string, std::string>>& files) const;

    const SampleVolume volume;
    const std::string image = volume.image();
    const TempDirectory host;
};

// A started `tavelin`, for those that do not end by themselves.
struct RunningTavelin : RunningProcess {
    explicit RunningTavelin(std::vector<std::string> words);
};

} // namespace tavelin::test
