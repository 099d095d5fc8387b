// shell and batch: many commands over one open volume.
#include "on_terminal.hpp"
#include "tavelin_program.hpp"

#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

TEST(Shell, RunsLinesFromADirectoryOfItsOwn) {
    const SampleVolume volume;
    const TempDirectory host;
    const std::string image = volume.image();
    writeFile(host / "a file", "content");
    const std::string lines = "# a remark\n"
                              "mkdir -p photos/2026 '# no remark'\n"
                              "cd photos/2026\n"
                              "lcd \"" +
                              host.path().string() +
                              "\"\n"
                              "put a\\ file\n"
                              "cat 'a file' /photos/2026/../2026/\"a file\"\n"
                              "ln -s '/photos/2026/a file' link\n"
                              "cd ..\n"
                              "pwd\n"
                              "find '2026/*'\n"
                              "ls --json\n"
                              "get 2026/link copy\n"
                              "exit\n"
                              "rm -r /photos\n";
    const std::string out = tavelinDone({"batch", image}, lines);
    EXPECT_EQ(out.substr(0, out.find('{')), "contentcontent/photos\n2026/a file\n2026/link\n");
    EXPECT_NE(out.find(R"({"path":"/photos/2026","name":"2026")"), std::string::npos) << out;
    EXPECT_EQ(std::filesystem::read_symlink(host / "copy"), "/photos/2026/a file");
    EXPECT_EQ(tavelinDone({"ls", image}), "# no remark\nphotos\n");
    volume.check();
}

TEST(Shell, EndsABatchWithTheFirstLineThatFails) {
    const SampleVolume volume;
    const std::string image = volume.image();
    struct Case {
        std::string line, says;
        int status;
    };
    const Case cases[] = {{"cat missing", "missing: No such file", kFailed},
                          {"cd missing", "missing: No such file", kFailed},
                          {"put missing", "missing: No such file", kFailed},
                          {"cat 'open", "a quote is not closed", 2},
                          {"mount x y", "'mount' is no command of the shell", 2},
                          {"cd a b", "'cd' takes one path", 2},
                          {"lss", "did you mean 'ls'?", 2}};
    for (const Case& each : cases) {
        const std::string lines = "mkdir -p before\n" + each.line + "\nmkdir behind\n";
        const ProcessResult ended = tavelinRun({"batch", image}, lines);
        EXPECT_EQ(ended.status, each.status) << ended.describe();
        EXPECT_NE(ended.err.find(each.says), std::string::npos) << ended.describe();
        EXPECT_NE(ended.err.find("line 2 failed"), std::string::npos) << ended.describe();
        EXPECT_EQ(tavelinDone({"ls", image}), "before\n");
        const ProcessResult goneOn =
            tavelinRun({"batch", "-k", image}, each.line + "\nmkdir behind\nrm -r behind\n");
        EXPECT_EQ(goneOn.status, each.status) << goneOn.describe();
    }
    const std::string before = readFile(image);
    const ProcessResult refused = tavelinRun({"batch", "--read-only", image}, "mkdir new\n");
    EXPECT_NE(refused.err.find("open for reading only"), std::string::npos) << refused.describe();
    expectRefusal(tavelinRun({"batch", image, "/no/such/file"}), kFailed, "No such file");
    EXPECT_EQ(readFile(image), before);
}

TEST(Shell, CompletesWordsAndOutlivesCtrlC) {
    const SampleVolume volume;
    const std::string image = volume.image();
    tavelinDone({"mkdir", "-p", image, "photos/my summer/raw", "photos/my\x1b[2Jwinter"});
    const std::string shown =
        onTerminal({"shell", image}, "1", "xterm", 100,
                   {{"/> ", "cd pho\tmy\t\n"},
                    {"/photos/my summer> ", "l\t"},
                    {"label", ""}, // with several ways to go on, they are shown
                    {"/photos/my summer> l", kCtrlC},
                    {"/photos/my summer> ", "ls; nothing "},
                    {"nothing ", kCtrlC},
                    {"/photos/my summer> ", "ls\n"},
                    {"raw\r\n/photos/my summer> ", "rm raw\n"},
                    {"its contents\r\n/photos/my summer> ", "\x04"}});
    EXPECT_EQ(shown.find("\x1b[2Jwinter"), std::string::npos) << shown;
    volume.check();
}

} // namespace
} // namespace tavelin::test
