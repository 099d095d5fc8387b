// What is different when a person is watching.
#include "on_terminal.hpp"
#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <array>

namespace tavelin::test {
namespace {

using Terminal = CommandTest;

TEST_F(Terminal, NamesCannotDriveIt) {
    const std::string evil = "\x1b]0;gotcha\x07\x1b[2J\nfake line";
    tavelinDone({"put", image, "-", evil}, "x");
    tavelinDone({"ln", "-s", image, "\x1b[2J", "link"});
    tavelinDone({"xattr", "set", image, evil, "stream\x1b[2J", "v"});
    for (const std::vector<std::string>& words : {std::vector<std::string>{"ls", "-l", image},
                                                  {"stat", image, evil},
                                                  {"readlink", image, "link"},
                                                  {"xattr", "list", image, evil}}) {
        const std::string shown = onTerminal(words, "1");
        EXPECT_EQ(shown.find('\x1b'), std::string::npos) << words.front() << ": " << shown;
        EXPECT_EQ(shown.find("\nfake"), std::string::npos) << words.front() << ": " << shown;
        EXPECT_NE(shown.find("\\x1b"), std::string::npos) << words.front() << ": " << shown;
    }
    const std::string listing = onTerminal({"ls", "--json", image}, "1");
    EXPECT_EQ(listing.find('\x1b'), std::string::npos) << listing;
    EXPECT_NE(listing.find("\\u001b"), std::string::npos) << listing;
    for (const std::vector<std::string>& words : {std::vector<std::string>{"mount", image, evil},
                                                  {"mount", evil, "/nowhere"},
                                                  {"umount", evil},
                                                  {"ls", evil}}) {
        const ProcessResult refused = tavelinRun(words);
        EXPECT_NE(refused.status, 0) << refused.describe();
        EXPECT_EQ(refused.err.find('\x1b'), std::string::npos) << refused.describe();
        EXPECT_EQ(refused.err.find("\nfake"), std::string::npos) << refused.describe();
    }
    // A program gets the name itself.
    EXPECT_EQ(tavelinDone({"ls", image}), evil + "\nlink\n");
}

TEST_F(Terminal, ColoursAndProgressAreForPeopleOnly) {
    tavelinDone({"mkdir", image, "folder"});
    EXPECT_EQ(onTerminal({"ls", image}), "\x1b[1;34mfolder\x1b[0m\r\n");
    EXPECT_EQ(onTerminal({"ls", image}, ""), "\x1b[1;34mfolder\x1b[0m\r\n");
    EXPECT_EQ(onTerminal({"ls", image}, "1"), "folder\r\n");
    EXPECT_EQ(onTerminal({"ls", image}, nullptr, "dumb"), "folder\r\n");
    EXPECT_EQ(tavelinDone({"ls", image}), "folder\n");

    writeFile(host / "big", std::string(4 << 20, 'x'));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"put", image, host / "big"},
          {"get", image, "big", host.path()}}) {
        const std::string shown = onTerminal(words, "1");
        EXPECT_NE(shown.find("\r["), std::string::npos) << shown;      // the bar …
        EXPECT_NE(shown.find("\r\x1b[K"), std::string::npos) << shown; // … is gone in the end
        EXPECT_NE(shown.find("1 file (4.0 MiB), 0 directories"), std::string::npos) << shown;
    }
    EXPECT_EQ(onTerminal({"put", "--json", image, host / "big"}).find("\r["), std::string::npos);
    EXPECT_EQ(onTerminal({"put", "-q", image, host / "big"}), "");
    EXPECT_EQ(onTerminal({"put", image, host / "big"}, "1", "dumb").find('['), std::string::npos);
}

// A line that wraps could not be erased again.
TEST_F(Terminal, TheProgressBarStaysOnItsLine) {
    writeFile(host / "日本語の長い名前の写真アルバム 🎉🎉🎉🎉🎉🎉", std::string(1 << 20, 'x'));
    for (const auto columns : std::array<unsigned short, 4>{20, 40, 60, 80}) {
        const std::string shown =
            onTerminal({"put", image, host.path().string() + "/."}, "1", "xterm", columns);
        const std::size_t begin = shown.find('\r');
        ASSERT_NE(begin, std::string::npos) << shown;
        const std::string line = shown.substr(begin + 1, shown.find('\x1b', begin) - begin - 1);
        std::size_t width = 0;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const auto byte = static_cast<unsigned char>(line[i]);
            // The wide ones have three or four bytes.
            width += byte < 0x80 ? 1 : byte >= 0xE0 ? 2 : 0;
        }
        EXPECT_LT(width, columns) << line;
        EXPECT_GT(width, 0u);
    }
}

} // namespace
} // namespace tavelin::test
