#include "tavelin_program.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace tavelin::test {
namespace {

using nlohmann::json;

/// A log of its own for one test.
class Events : public CommandTest {
  protected:
    Events() { setenv("TAVELIN_GROUP_CONTAINER", (host / "group").c_str(), 1); }
};

std::vector<json> parseLines(const std::string& text) {
    std::vector<json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

TEST_F(Events, ReadFromAnOffsetOn) {
    tavelinDone({"mkdir", image, "new"});
    std::vector<json> first = parseLines(tavelinDone({"events", "--json", "--since", "0"}));
    // What opened the volume for a change, and what came of it.
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(first.at(0).at("ev"), "load");
    EXPECT_EQ(first.at(1).at("ev"), "unload");
    const auto offset = first.back().at("offset").get<std::uint64_t>();

    tavelinDone({"check", "-q", image});
    const auto later =
        parseLines(tavelinDone({"events", "--json", "--since", std::to_string(offset)}));
    EXPECT_EQ(later.front().at("ev"), "module_start");
    const std::string shown = tavelinDone({"events"});
    EXPECT_NE(shown.find("  checked a volume  errno=0 mode=quick"), std::string::npos) << shown;
    // Beyond its end, as after a rotation, the whole log comes.
    EXPECT_EQ(parseLines(tavelinDone({"events", "--json", "--since", "99999999"})).size(),
              first.size() + later.size() - 1);
}

// Looking at a volume is no news, and would push the news out of the log; a failure is.
TEST_F(Events, ReadingIsOnlyLoggedWhereItFails) {
    tavelinDone({"ls", image});
    tavelinDone({"probe", image});
    EXPECT_EQ(tavelinDone({"events"}), "");
    writeFile(host / "cut off", readFile(image).substr(0, 100'000));
    EXPECT_EQ(tavelinRun({"ls", host / "cut off"}).status, 1);
    const std::string shown = tavelinDone({"events", "-n", "1"});
    EXPECT_NE(shown.find("  could not open a volume  "), std::string::npos) << shown;
    EXPECT_NE(shown.find(" ok=false"), std::string::npos) << shown;
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 1) << shown;
    EXPECT_NE(shown.find("=\""), std::string::npos) << "a value with blanks is quoted: " << shown;
    // What the log says of errors is an object inside the line.
    tavelinDone({"mkdir", "-p", image, "a"});
    const std::string ended = tavelinDone({"events", "-n", "2"});
    EXPECT_NE(ended.find("  closed a volume  errors=\"1 ENOENT\""), std::string::npos) << ended;
    tavelinDone({"label", image, "new"});
    EXPECT_NE(tavelinDone({"events"}).find(" errors=none "), std::string::npos);
}

TEST_F(Events, FollowShowsWhatComes) {
    tavelinDone({"mkdir", image, "new"});
    RunningTavelin following({"events", "--follow", "--json"});
    EXPECT_EQ(json::parse(following.readLine()).at("ev"), "load");
    tavelinDone({"check", "-n", image});
    json event;
    do {
        const std::string line = following.readLine();
        ASSERT_FALSE(line.empty()) << following.finish().describe();
        event = json::parse(line);
    } while (event.at("ev") != "check");
    EXPECT_EQ(event.at("mode"), "verify");
    following.signal(SIGTERM);
    EXPECT_EQ(following.finish().status, 128 + SIGTERM);
}

} // namespace
} // namespace tavelin::test
