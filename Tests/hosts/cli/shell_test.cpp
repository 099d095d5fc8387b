// shell and batch: many commands over one open volume.
#include "on_terminal.hpp"
#include "tavelin_program.hpp"

#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

using Shell = CommandTest;

TEST_F(Shell, RunsLinesFromADirectoryOfItsOwn) {
    writeFile(host / "a file", "content");
    const std::string lines = "lcd \"" + host.path().string() + R"("
# a remark
mkdir -p photos/2026 '# no remark'
cd photos/2026
put a\ file
cat 'a file' /photos/2026/../2026/"a file"
ln -s '/photos/2026/a file' link
cd ..
pwd
find '2026/*'
ls --json
get 2026/link copy
exit
rm -r /photos
)";
    const std::string out = tavelinDone({"batch", image}, lines);
    EXPECT_EQ(out.substr(0, out.find('{')), "contentcontent/photos\n2026/a file\n2026/link\n");
    EXPECT_NE(out.find(R"({"path":"/photos/2026","name":"2026")"), std::string::npos) << out;
    EXPECT_EQ(std::filesystem::read_symlink(host / "copy"), "/photos/2026/a file");
    EXPECT_EQ(tavelinDone({"ls", image}), "# no remark\nphotos\n");
}

TEST_F(Shell, EndsABatchWithTheFirstLineThatFails) {
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

TEST_F(Shell, CompletesWordsAndOutlivesCtrlC) {
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
}

} // namespace
} // namespace tavelin::test
