#include "tavelin_program.hpp"

#include <algorithm>

namespace tavelin::test {
namespace {

std::vector<std::string> withProgram(std::vector<std::string> words) {
    words.insert(words.begin(), TAVELIN_PROGRAM);
    return words;
}

} // namespace

ProcessResult tavelinRun(std::vector<std::string> words, const std::string& input) {
    return run(withProgram(std::move(words)), input);
}

ProcessResult tavelinUnder(const std::string& script, const std::vector<std::string>& words) {
    std::vector<std::string> all = withProgram(words);
    all.insert(all.begin(), {"sh", "-c", script, "sh"});
    return run(all);
}

std::string tavelinDone(std::vector<std::string> words, const std::string& input) {
    const ProcessResult result = tavelinRun(std::move(words), input);
    EXPECT_TRUE(result.ok()) << result.describe();
    EXPECT_EQ(result.err, "");
    return result.out;
}

nlohmann::json tavelinItems(std::vector<std::string> words) {
    const std::string command = words.front();
    words.insert(words.begin() + 1, "--json");
    const auto answer = nlohmann::json::parse(tavelinDone(std::move(words)));
    EXPECT_EQ(answer.at("command"), command);
    EXPECT_EQ(answer.at("status"), 0);
    EXPECT_TRUE(answer.at("errors").empty());
    return answer.at("items");
}

nlohmann::json columnOf(const nlohmann::json& items, const char* key, const char* value) {
    auto column = nlohmann::json::object();
    for (const nlohmann::json& item : items) {
        column[item.at(key).get<std::string>()] = item.at(value);
    }
    return column;
}

void expectRefusal(const ProcessResult& result, int status, const std::string& hint) {
    EXPECT_EQ(result.status, status) << result.describe();
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("tavelin: ")) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_NE(result.err.find(hint), std::string::npos) << result.err << "lacks: " << hint;
}

void CommandTest::put(const std::vector<std::pair<std::string, std::string>>& files) const {
    for (const auto& [path, content] : files) {
        tavelinDone({"put", image, "-", path}, content);
    }
}

RunningTavelin::RunningTavelin(std::vector<std::string> words)
    : RunningProcess(withProgram(std::move(words))) {}

} // namespace tavelin::test
