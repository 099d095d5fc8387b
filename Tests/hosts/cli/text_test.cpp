#include "hosts/cli/glob.hpp"
#include "hosts/cli/text.hpp"

#include <gtest/gtest.h>

namespace tavelin::cli {
namespace {

TEST(Text, EscapesWhatCouldDriveATerminalAndNothingElse) {
    const std::pair<std::string, std::string> kTable[] = {
        {"Grüße 日本 🎉 back\\slash", "Grüße 日本 🎉 back\\slash"},
        {"a\nb\tc", "a\\nb\\tc"},
        {"\x1b[2J", "\\x1b[2J"},
        {"back\\slash\n", "back\\\\slash\\n"}, // else "\n" and a real line feed look the same
        {"\x7f\xc2\x9b", "\\x7f\\xc2\\x9b"},   // DEL; the one-character CSI
        {"gpj\xe2\x80\xae.exe", "gpj\\xe2\\x80\\xae.exe"}, // right-to-left override
        {"\xff\xc3(", "\\xff\\xc3("},                      // not UTF-8
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},               // a surrogate
        {"\xc0\xaf", "\\xc0\\xaf"},                        // an overlong "/"
        {"cut \xe6\x97", "cut \\xe6\\x97"},
    };
    for (const auto& [text, expected] : kTable) {
        EXPECT_EQ(escaped(text), expected);
    }
}

TEST(Text, SaysSizesTimesAndModesAsPeopleReadThem) {
    EXPECT_EQ(humanSize(1), "1 byte");
    EXPECT_EQ(humanSize(1023), "1023 bytes");
    EXPECT_EQ(humanSize(1536), "1.5 KiB");
    EXPECT_EQ(humanSize((1u << 20) - 1), "1.0 MiB"); // never "1024.0 KiB"
    EXPECT_EQ(humanSize(~0ull), "16.0 EiB");
    EXPECT_EQ(isoTime({1795235555, 123456700}), "2026-11-21T04:32:35.1234567Z");
    EXPECT_EQ(isoTime({-11644473600, 100}), "1601-01-01T00:00:00.0000001Z");
    EXPECT_EQ(modeText(fskit::FSItemType::directory, 0754), "drwxr-xr--");
}

TEST(Text, MatchesPatterns) {
    const struct {
        std::string_view pattern;
        std::string_view path;
        bool matches;
    } kTable[] = {
        {"*.jpg", "a/b/C.JPG", true},
        {"*.jpg", "a.jpg/b", false},
        {"Photos/**/*.jpg", "Photos/a.jpg", true},
        {"Photos/**/*.jpg", "Photos/a/b/c.jpg", true},
        {"Photos/*/*.jpg", "Photos/a/b/c.jpg", false},
        {"/photos/*", "Photos/ü", true},
        {"?", "ü", true},
        {"??", "ü", false},
        {"[a-c]*[!0-9]", "b12x", true},
        {"[a-c]*[!0-9]", "b123", false},
        {"[ü-ž]", "ź", true},
        {"[", "[", true},
        {"a*b*c", "a-b-b-c", true},
        {"a*b*c", "a-c-b", false},
        {"**", "", true},
        {"**/x", "x", true},
        {"*", "", false},
    };
    for (const auto& row : kTable) {
        EXPECT_EQ(matchesPath(row.pattern, row.path), row.matches)
            << row.pattern << " " << row.path;
    }
    // Many stars must not take exponential time.
    EXPECT_FALSE(matchesName("*a*a*a*a*a*a*a*a*a*a*b", std::string(5000, 'a')));
}

TEST(Text, TakesPathsApart) {
    EXPECT_EQ(lastComponent("a/b//"), "b");
    EXPECT_EQ(lastComponent("b"), "b");
    EXPECT_EQ(lastComponent("//"), "");
    EXPECT_EQ(joined("", "a"), "a");
    EXPECT_EQ(joined("/", "a"), "/a");
    EXPECT_EQ(joined("b", "a"), "b/a");
}

} // namespace
} // namespace tavelin::cli
