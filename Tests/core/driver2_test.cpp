
#include "core/driver2/check_mode.hpp"
#include "core/driver2/directory_snapshot.hpp"
#include "core/driver2/item_identity.hpp"
#include "core/driver2/mount_fallback.hpp"
#include "core/driver2/mount_options.hpp"
#include "core/driver2/short_name.hpp"
#include "core/driver2/sync_flags.hpp"
#include "core/driver2/volume_uuid.hpp"

#include <gtest/gtest.h>

namespace tavelin {
namespace {

using Options = std::vector<std::string>;
using Driver2::CheckMode;

TEST(Driver2, ReadsMountOptions) {
    const std::vector<std::pair<Options, Options>> cases{
        // arguments, what they switch on
        {{"-o"}, {}},
        {{"-r"}, {"ro"}},
        {{"--rdonly"}, {"ro"}},
        {{"rdonly"}, {"ro"}},
        {{"-o", "ro", "-o", "rw"}, {"ro"}},
        {{"-oro,windows_names"}, {"ro", "wn"}},
        {{"-o", "windows_names,,rdonly"}, {"ro", "wn"}},
        {{"-o", "windows_names,normalize_names"}, {"wn", "nn"}},
        {{"-o", "windows_names,normalize_names,nowindows_names,nonormalize_names"}, {"!wn", "!nn"}},
        {{"-o", "ignore_case"}, {"ic"}},
        {{"-o", "ignore_case,noignore_case"}, {"!ic"}},
        {{"windows_names", "RO", "-x", "-o", "rw,noatime"}, {}},
        {{"-o", "-r"}, {}}, // the word after -o is its list
    };
    for (const auto& [arguments, expected] : cases) {
        const Driver2::MountOptions options(arguments);
        Options on;
        if (options.readOnly) {
            on.emplace_back("ro");
        }
        if (options.windowsNames) {
            on.emplace_back(*options.windowsNames ? "wn" : "!wn");
        }
        if (options.normalizeNames) {
            on.emplace_back(*options.normalizeNames ? "nn" : "!nn");
        }
        if (options.ignoreCase) {
            on.emplace_back(*options.ignoreCase ? "ic" : "!ic");
        }
        EXPECT_EQ(on, expected) << ::testing::PrintToString(arguments);
    }
}

TEST(Driver2, TheStrongestCheckModeWins) {
    EXPECT_EQ(Driver2::checkMode(Options{}), CheckMode::quick);
    EXPECT_EQ(Driver2::checkMode(Options{"-n", "-q"}), CheckMode::verify);
    EXPECT_EQ(Driver2::checkMode(Options{"-y", "-n"}), CheckMode::repair);
    EXPECT_THROW(static_cast<void>(Driver2::checkMode(Options{"-q", "-x"})), NTFSError);
    EXPECT_EQ(Driver2::checkError(CheckMode::repair, true), kENOTSUP);
    EXPECT_EQ(Driver2::checkError(CheckMode::verify, false), kENXIO);
}

TEST(Driver2, OnlyARefusedReadWriteOpenIsTriedAgain) {
    struct Case {
        bool readOnly;
        std::vector<std::int32_t> failures; // of the attempts that fail, in order
        bool fails;
    };
    for (const Case& c : {Case{false, {}, false}, Case{false, {kEROFS}, false},
                          Case{false, {kEPERM}, false}, Case{false, {kEROFS, kEIO}, true},
                          Case{false, {kEIO}, true}, Case{true, {kEROFS}, true}}) {
        std::size_t attempts = 0;
        const auto open = [&](bool readOnly) {
            if (attempts++ < c.failures.size()) {
                throw NTFSError(c.failures[attempts - 1]);
            }
            return readOnly;
        };
        try {
            const auto opened = Driver2::openWithReadOnlyFallback(c.readOnly, open);
            EXPECT_FALSE(c.fails);
            EXPECT_EQ(opened.fellBack, !c.failures.empty());
            EXPECT_EQ(opened.value, c.readOnly || opened.fellBack);
        } catch (const NTFSError& error) {
            EXPECT_TRUE(c.fails);
            EXPECT_EQ(error.code, c.failures.back());
        }
        EXPECT_EQ(attempts, c.failures.size() + (c.fails ? 0 : 1));
    }
}

TEST(Driver2, IdentifiesVolumesByTheirSerial) {
    const Driver2::UUID expected{'T',  'A',  'V',  'E',  'L',  'I',  0x5E, '1',
                                 0x90, 0xEF, 0x78, 0x56, 0xCD, 0xAB, 0x34, 0x12};
    EXPECT_EQ(Driver2::volumeUUID(0x1234ABCD5678EF90), expected);
    EXPECT_EQ(Driver2::volumeUUID(0)[8], 0x80);
    EXPECT_EQ(Driver2::volumeUUID(0xFF)[8], 0xBF);
}

TEST(Driver2, FlushesUnlessASynchroniseDoesNotWait) {
    for (const std::int64_t flags : {0, 1, 2, 3, 4, 6, 9, 10, -1}) {
        EXPECT_EQ(Driver2::syncMustFlush(flags), flags != 2 && flags != 4 && flags != 10);
    }
}

TEST(Driver2, TakesTheShortNameFromAnInformationDictionaryThatHasOne) {
    const auto nameIn = [](Value attributes) {
        const InformationDictionary info{{"EXAppExtensionAttributes", std::move(attributes)}};
        return Driver2::shortName(&info);
    };
    EXPECT_EQ(nameIn(Value::Map{{"FSShortName", "other"}}), "other");
    EXPECT_EQ(nameIn(Value::Map{{"FSShortName", ""}}), "tavelin");
    EXPECT_EQ(nameIn(Value::Map{{"FSShortName", 3}}), "tavelin");
    EXPECT_EQ(nameIn("text"), "tavelin");
    EXPECT_EQ(Driver2::shortName(nullptr), "tavelin");
}

TEST(Driver2, PositionsAndProductsThatDoNotFitStopTheProcess) {
    EXPECT_DEATH(static_cast<void>(Driver2::DirectorySnapshot::cookie(-1)), "negative");
    const NTFSStatFS vast{.clusterSize = 4096, .totalClusters = 1ull << 52};
    EXPECT_DEATH(static_cast<void>(vast.totalBytes()), "totalBytes");
    EXPECT_TRUE(Driver2::DirectorySnapshot({}, 7).page(UINT64_MAX).empty());
}

} // namespace
} // namespace tavelin
