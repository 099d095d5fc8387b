#include "platform/utf8.hpp"

#include <gtest/gtest.h>

namespace tavelin {
namespace {

#define BAD "\xef\xbf\xbd"

TEST(UTF8, InvalidSequencesAreReplaced) {
    struct Case {
        std::string_view text;
        std::string_view repaired;
    };
    const Case cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"\u00e9\u20ac\U0001F600", "\u00e9\u20ac\U0001F600"},
        {{"a\0b", 3}, {"a\0b", 3}},
        {"a\xff z", "a" BAD " z"},
        {"\x80\xbf", BAD BAD},
        {"\xc0\xaf", BAD BAD},                 // overlong
        {"\xe0\x80\x80", BAD BAD BAD},         // overlong
        {"\xed\xa0\x80", BAD BAD BAD},         // surrogate
        {"\xf4\x90\x80\x80", BAD BAD BAD BAD}, // beyond U+10FFFF
        {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
        {"\xe2\x82", BAD}, // cut at the end: one mark for the part that is there
        {"\xf0\x9f\x98"
         "x",
         BAD "x"}, // cut by another character, which stays
        {"\xc3\xc3\xa9", BAD "\u00e9"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(repairUTF8(c.text), c.repaired) << testing::PrintToString(c.text);
    }
}

TEST(UTF8, UnpairedSurrogatesAreToldFromOtherFaults) {
    const std::pair<std::string_view, bool> cases[] = {
        {"", true},
        {"a\u20ac\U0001F600", true},
        {"a\xed\xa0\x80z", true},
        {"\xed\xbf\xbf", true},
        {"\xed\xb0\x80\xed\xa0\x80", true}, // low before high is no pair
        {"\xed\xa0\x80\xed\xa0\x80", true},
        {"\xed\xa0\x80\xed\xb0\x80", false}, // a pair is one character, of four bytes
        {"\xed\xa0\x80x\xed\xb0\x80", true},
        {"\xed\xa0", false},
        {"\xed\xa0x", false},
        {"\xff", false},
        {"\xc0\xaf", false},
    };
    for (const auto& [text, isSound] : cases) {
        EXPECT_EQ(isUTF8OrSurrogates(text), isSound) << testing::PrintToString(text);
    }
}

TEST(UTF8, CutsBetweenCharacters) {
    EXPECT_EQ(firstCharacters("\u20ac\u20acx", 2), "\u20ac\u20ac");
    EXPECT_EQ(firstCharacters("abc", 5), "abc");
    EXPECT_EQ(firstCharacters("\xff\xff\xff", 2), "\xff\xff");
    EXPECT_EQ(firstCharacters("abc", 0), "");
}

} // namespace
} // namespace tavelin
