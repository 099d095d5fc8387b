// Where a journal can be: $LogFile as it is found on a device.
#include "check/image_editor.hpp"
#include "core/journal/journal_disk.hpp"

namespace tavelin::test {
namespace {

bool hasJournal(const std::shared_ptr<Disk>& disk) {
    std::optional<Journal> journal;
    JournalAbsence absence{};
    EXPECT_EQ(Journal::find(disk, journal, absence), 0);
    return journal.has_value();
}

// Offsets in $LogFile's record of what a hostile volume may lie about, and a lie.
TEST(Journal, StaysAwayFromALogThatIsNotWhatItSeems) {
    const std::uint64_t record = valueAt(volume().image, 0x30) * kPage + 2 * 1024;
    std::uint64_t data = record + static_cast<std::uint64_t>(volume().image[record + 0x14]);
    while (volume().image[data] != std::byte{0x80}) {
        data += static_cast<std::uint64_t>(volume().image[data + 4]);
    }
    const std::uint64_t runs = data + static_cast<std::uint64_t>(volume().image[data + 0x20]);
    const std::map<const char*, std::pair<std::uint64_t, int>> lies{
        {"not in use", {record + 0x16, 0}},
        {"an attribute without length", {data + 4, 0}},
        {"resident", {data + 8, 0}},
        {"sparse", {data + 0xd, 0x80}},
        {"more clusters than runs", {data + 0x18, 0x01}},
        {"runs past the attribute", {data + 0x20, 0xf0}},
        {"a run past the device", {runs + 4, 0x7f}},
        {"a run over the boot sector", {runs + 4, 0}},
        {"a run without length", {runs, 0x20}},
    };
    for (const auto& [what, lie] : lies) {
        const auto disk = diskWith(volume().image);
        disk->bytes.at(lie.first) = static_cast<std::byte>(lie.second);
        EXPECT_FALSE(hasJournal(disk)) << what;
    }
}

// A power cut in the middle of the write of $LogFile's own record must not take the journal away.
TEST(Journal, IsFoundThroughTheMirrorOfATornRecord) {
    const auto disk = diskWith(volume().image);
    for (const std::uint64_t table : {0x30, 0x38}) {
        disk->bytes.at(valueAt(volume().image, table) * kPage + 2 * 1024 + 510) ^= std::byte{1};
        EXPECT_EQ(hasJournal(disk), table == 0x30);
    }
}

// Clusters of 64 KiB on sectors of 512 bytes: the one size whose factor, 128, has the sign bit.
TEST(Journal, IsThereForTheLargestClustersOfOldVolumes) {
    EXPECT_TRUE(hasJournal(formatted({.bytes = 64u << 20, .clusterSize = 64u << 10})));
}

TEST(Journal, GoesOnWhereTheNextPieceOfItsFileBegins) {
    const auto disk = formatted({.bytes = 2u << 20});
    const std::string image = textOf(disk->bytes);
    std::vector<std::uint8_t> bytes(image.begin(), image.end());
    ImageEditor editor(bytes);
    const ntb::run whole = editor.runs(ntb::record_logfile, ntb::at_data).at(0);
    const std::uint64_t half = whole.length / 2;
    editor.setRuns(ntb::record_logfile, ntb::at_data, "",
                   {{.length = whole.length - half, .lcn = whole.lcn + half},
                    {.length = half, .lcn = whole.lcn}});
    std::memcpy(disk->bytes.data(), bytes.data(), bytes.size());
    std::optional<LogFile> log;
    JournalAbsence absence{};
    ASSERT_EQ(LogFile::find(disk, log, absence), 0);
    ASSERT_TRUE(log);
    const Bytes written = pagesOf(1, 3);
    const std::uint64_t at = (whole.length - half - 1) * kPage;
    EXPECT_EQ(log->write(written.data(), at, written.size()), 0);
    EXPECT_EQ(valueAt(disk->bytes, whole.lcn * kPage), 1u);
    Bytes found(written.size());
    EXPECT_EQ(log->read(found.data(), at, found.size()), 0);
    EXPECT_EQ(found, written);
}

TEST(Journal, IsNotThereWhereAHeaderCannotBeWrittenAlone) {
    const auto disk = diskWith(volume().image);
    disk->blockBytes = 2 * kPage;
    EXPECT_FALSE(hasJournal(disk));
}

} // namespace
} // namespace tavelin::test
