#include "core/driver2.hpp"

#include <gtest/gtest.h>

#include <numeric>

namespace tavelin {
namespace {

using Words = std::vector<std::string>;
using Driver2::CheckMode;

TEST(Driver2, ReadsMountOptions) {
    struct Case {
        Words arguments;
        bool readOnly;
        bool windowsNames;
    };
    const Case cases[] = {
        {{}, false, false},
        {{"-o"}, false, false},
        {{"-r"}, true, false},
        {{"--rdonly"}, true, false},
        {{"rdonly"}, true, false},
        {{"-o", "ro"}, true, false},
        {{"-oro,windows_names"}, true, true},
        {{"-o", "windows_names,,ro"}, true, true},
        {{"windows_names", "RO", "-x", "-o", "rw,noatime"}, false, false},
        {{"-o", "-r"}, false, false}, // the word after -o is its list
        {{"-o", "ro", "-o", "rw"}, true, false},
    };
    for (const Case& c : cases) {
        const Driver2::MountOptions options(c.arguments);
        EXPECT_EQ(options.readOnly, c.readOnly) << ::testing::PrintToString(c.arguments);
        EXPECT_EQ(options.windowsNames, c.windowsNames) << ::testing::PrintToString(c.arguments);
    }
}

TEST(Driver2, TheStrongestCheckModeWinsAndRepairIsNeverOffered) {
    EXPECT_EQ(Driver2::checkMode(Words{}), CheckMode::quick);
    EXPECT_EQ(Driver2::checkMode(Words{"-n", "-q"}), CheckMode::verify);
    EXPECT_EQ(Driver2::checkMode(Words{"-y", "-n"}), CheckMode::repair);
    EXPECT_THROW(static_cast<void>(Driver2::checkMode(Words{"-q", "-x"})), NTFSError);

    EXPECT_EQ(Driver2::checkError(CheckMode::repair, true), kENOTSUP);
    EXPECT_EQ(Driver2::checkError(CheckMode::verify, false), kENXIO);
    EXPECT_EQ(Driver2::checkError(CheckMode::quick, true), std::nullopt);
}

TEST(Driver2, OnlyARefusedReadWriteOpenIsTriedAgain) {
    struct Case {
        bool readOnly;
        std::int32_t first, second; // what the attempts throw, 0 for success
        int attempts;
        std::int32_t thrown;
        bool fellBack;
    };
    const Case cases[] = {
        {false, 0, 0, 1, 0, false},       {false, kEROFS, 0, 2, 0, true},
        {false, kEPERM, 0, 2, 0, true},   {false, kEROFS, kEIO, 2, kEIO, false},
        {false, kEIO, 0, 1, kEIO, false}, {true, kEROFS, 0, 1, kEROFS, false},
    };
    for (const Case& c : cases) {
        int attempts = 0;
        const auto open = [&](bool readOnly) {
            const std::int32_t code = ++attempts == 1 ? c.first : c.second;
            if (code != 0) {
                throw NTFSError(code);
            }
            return readOnly;
        };
        std::int32_t thrown = 0;
        try {
            const auto opened = Driver2::openWithReadOnlyFallback(c.readOnly, open);
            EXPECT_EQ(opened.fellBack, c.fellBack);
            EXPECT_EQ(opened.value, c.readOnly || c.fellBack);
        } catch (const NTFSError& error) {
            thrown = error.code;
        }
        EXPECT_EQ(thrown, c.thrown) << c.first;
        EXPECT_EQ(attempts, c.attempts) << c.first;
    }
    int others = 0;
    EXPECT_THROW(static_cast<void>(Driver2::openWithReadOnlyFallback(false,
                                                                     [&](bool) -> int {
                                                                         ++others;
                                                                         throw std::bad_alloc();
                                                                     })),
                 std::bad_alloc);
    EXPECT_EQ(others, 1);
}

TEST(Driver2, IdentifiesItemsAndVolumes) {
    for (const std::uint64_t ino : {5u, 16u, 4711u}) {
        EXPECT_EQ(Driver2::ino(Driver2::itemID(ino)), ino);
    }
    EXPECT_EQ(Driver2::itemID(5), 2u);

    const Driver2::UUID expected{'T',  'A',  'V',  'E',  'L',  'I',  0x5E, '1',
                                 0x90, 0xEF, 0x78, 0x56, 0xCD, 0xAB, 0x34, 0x12};
    EXPECT_EQ(Driver2::volumeUUID(0x1234ABCD5678EF90), expected);
    EXPECT_EQ(Driver2::volumeUUID(0)[8], 0x80);
    EXPECT_EQ(Driver2::volumeUUID(0xFF)[8], 0xBF);
}

TEST(Driver2, PagesASnapshotByCookie) {
    std::vector<NTFSDirEntry> entries{{"a", 30, NTFSItemType::file}, {"b", 31, NTFSItemType::file}};
    const Driver2::DirectorySnapshot snapshot(entries, 7);
    std::vector<std::string> seen;
    for (std::uint64_t at = 0; !snapshot.page(at).empty();) {
        seen.push_back(snapshot.page(at).front().name);
        at = Driver2::DirectorySnapshot::cookie(static_cast<std::int64_t>(at));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(snapshot.page(UINT64_MAX).empty());
    EXPECT_DEATH(static_cast<void>(Driver2::DirectorySnapshot::cookie(-1)), "negative");
    EXPECT_DEATH(static_cast<void>(Driver2::DirectorySnapshot::cookie(INT64_MAX)), "overflowed");
}

TEST(Driver2, FlushesUnlessASynchroniseDoesNotWait) {
    for (const std::int64_t flags : {0, 1, 3, 6, 9, -1}) {
        EXPECT_TRUE(Driver2::syncMustFlush(flags)) << flags;
    }
    for (const std::int64_t flags : {2, 4, 10, 12}) {
        EXPECT_FALSE(Driver2::syncMustFlush(flags)) << flags;
    }
}

TEST(Driver2, TakesTheShortNameFromAnInformationDictionaryThatHasOne) {
    const auto info = [](Value name) {
        return InformationDictionary{
            {"EXAppExtensionAttributes", Value::Map{{"FSShortName", std::move(name)}}}};
    };
    const InformationDictionary odd{{"EXAppExtensionAttributes", "text"}},
        named = info("other"), empty = info(""), number = info(3);
    EXPECT_EQ(Driver2::shortName(&named), "other");
    for (const InformationDictionary* without :
         {static_cast<const InformationDictionary*>(nullptr), &odd, &empty, &number}) {
        EXPECT_EQ(Driver2::shortName(without), "tavelin");
    }
}

TEST(NTFSStatFS, ProductsThatDoNotFitStopTheProcess) {
    EXPECT_EQ((NTFSStatFS{.clusterSize = 4096, .totalClusters = 1ull << 51}).totalBytes(),
              1ull << 63);
    const NTFSStatFS vast{
        .clusterSize = 4096, .totalClusters = 1ull << 52, .freeClusters = 1ull << 52};
    EXPECT_DEATH(static_cast<void>(vast.totalBytes()), "totalBytes");
    EXPECT_DEATH(static_cast<void>(vast.freeBytes()), "freeBytes");
}

} // namespace
} // namespace tavelin
