// What a volume in doubt may be mounted for, and what is said of one that Windows still has.
#include "check/check.hpp"
#include "check/filled_volume.hpp"
#include "check/image_editor.hpp"
#include "check/mount_gate.hpp"
#include "check/record_reader.hpp"
#include "check/volume_map.hpp"
#include "check/volume_state.hpp"
#include "lab/disk_device.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>

namespace tavelin::test {
namespace {

using namespace std::chrono_literals;

void mark(ImageEditor& editor, uint16_t flags = 1) {
    editor.editValue(ntb::record_volume, ntb::at_volume_information, "",
                     [=](ImageEditor::Bytes value) { ntb::put_at(value.data(), 10, 2, flags); });
}

TEST(MountGate, OpensForSoundVolumesAndNotWhereDataIsAtRisk) {
    MemoryDevice device(filledImage({}, 100));
    ImageEditor editor(device.bytes);
    EXPECT_FALSE(check::isMarkedDirty(device));
    mark(editor);
    EXPECT_TRUE(check::isMarkedDirty(device));
    const check::GateVerdict sound = check::judgeForWriting(device, "is marked dirty", 60s);
    EXPECT_TRUE(sound.mayWrite) << sound.message;

    editor.setBit(ntb::record_bitmap, ntb::at_data, "",
                  editor.runs(editor.record("/other"), ntb::at_data).at(0).lcn, false);
    const check::GateVerdict damaged = check::judgeForWriting(device, "is marked dirty", 60s);
    EXPECT_FALSE(damaged.mayWrite);
    EXPECT_NE(damaged.message.find("/other"), std::string::npos) << damaged.message;
    const check::GateVerdict unfinished = check::judgeForWriting(device, "is marked dirty", 0s);
    EXPECT_TRUE(unfinished.mayWrite);
    EXPECT_NE(unfinished.message.find("as much as there was time for"), std::string::npos);

    device.bytes.resize(device.bytes.size() / 2);
    EXPECT_NE(check::checkVolume(device).unreadable.find("cut off"), std::string::npos);
}

TEST(MountGate, LeavesToWindowsWhatIsReservedForIt) {
    MemoryDevice device(filledImage({}, 1));
    ImageEditor editor(device.bytes);
    for (const uint16_t flags : std::array<uint16_t, 5>{0x0002, 0x0004, 0x0020, 0x4000, 0x8000}) {
        mark(editor, flags);
        EXPECT_NE(check::reservation(device).find("can only be read"), std::string::npos) << flags;
    }
    mark(editor, 0x3fd9);
    EXPECT_EQ(check::reservation(device), "");
}

// A page of Windows' journal: where its restart area is, the version, whether clients use it.
std::function<void(ImageEditor&)> restartPage(uint16_t version, uint16_t clients) {
    return [=](ImageEditor& editor) {
        editor.editValue(ntb::record_logfile, ntb::at_data, "", [&](ImageEditor::Bytes log) {
            ntb::put_at(log.data(), 0, 4, 0x52545352); // "RSTR"
            ntb::put_at(log.data(), 0x18, 2, 0x30);
            ntb::put_at(log.data(), 0x1c, 2, version);
            ntb::put_at(log.data(), 0x3c, 2, clients);
            ntb::put_at(log.data(), 0x3e, 2, 0);
        });
    };
}

TEST(VolumesOfWindows, SayWhatCannotBeTrusted) {
    using check::LogState;
    const auto hibernate = [](ImageEditor& editor) {
        editor.editValue(
            editor.record("/hiberfil.sys"), ntb::at_data, "",
            [](ImageEditor::Bytes data) { ntb::put_at(data.data(), 0, 4, 0x72626968); }); // "hibr"
    };
    const struct {
        std::function<void(ImageEditor&)> change;
        const char* note;
        LogState log;
        bool isFastStarted;
    } kRows[] = {
        {[](ImageEditor&) {}, "", LogState::empty, false},
        {restartPage(1, 0xffff), "", LogState::clean, false},
        {restartPage(1, 0), "not shut down properly", LogState::inUse, false},
        {restartPage(2, 0), "fast startup", LogState::inUse, true},
        {hibernate, "free space, directories and files", LogState::empty, false},
    };
    const std::vector<uint8_t> sound = filledImage({}, 4);
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.note);
        MemoryDevice device(sound);
        ImageEditor editor(device.bytes);
        row.change(editor);
        const check::Report report = check::checkVolume(device);
        EXPECT_TRUE(report.isClean()) << check::complaints(device);
        const std::string note = report.notes.empty() ? "" : report.notes.at(0);
        EXPECT_TRUE(*row.note == '\0' ? note.empty() : note.find(row.note) != std::string::npos);
        const auto state = check::readVolumeState(device);
        ASSERT_TRUE(state.has_value());
        EXPECT_EQ(state->log, row.log);
        EXPECT_EQ(state->isFastStarted, row.isFastStarted);
        EXPECT_EQ(state->majorVersion * 10 + state->minorVersion, 31);
    }
}

// What is in the clusters behind the initialised size is some deleted file's.
TEST(RecordReader, ReadsZerosWhereNothingWasWritten) {
    MemoryDevice device(filledImage({}, 4));
    ImageEditor editor(device.bytes);
    const uint64_t number = editor.record("/other");
    editor.editAttribute(number, ntb::at_data, "", [](ImageEditor::Bytes attribute) {
        ntb::put_at(attribute.data(), 0x38, 8, 5000); // the initialised size
    });
    std::string whyNot;
    const auto reader = check::RecordReader::open(device, whyNot);
    ASSERT_NE(reader, nullptr) << whyNot;
    ASSERT_TRUE(reader->record(number).has_value());
    std::vector<uint8_t> bytes(10'000);
    EXPECT_EQ(reader->readContent(0, bytes), 0);
    EXPECT_TRUE(std::all_of(bytes.begin() + 5000, bytes.end(), [](uint8_t b) { return b == 0; }));
    EXPECT_FALSE(
        std::all_of(bytes.begin(), bytes.begin() + 5000, [](uint8_t b) { return b == 0; }));
}

TEST(VolumeMap, CountsWhatIsInUse) {
    MemoryDevice device(filledImage({}, 100));
    ImageEditor editor(device.bytes);
    const auto runs = editor.runs(editor.record("/sparse"), ntb::at_data);
    const auto map = check::readVolumeMap(device, 64, editor.record("/sparse"));
    ASSERT_TRUE(map.has_value());
    const check::VolumeMap::Part total = map->total();
    EXPECT_EQ(map->parts.size(), 64u);
    EXPECT_EQ(total.clusters, editor.boot().clusters());
    EXPECT_EQ(total.used, check::checkVolume(device).clustersUsed);
    EXPECT_EQ(map->fragments.size(), 2u); // with a hole between
    EXPECT_EQ(total.file, runs.front().length + runs.back().length);
    EXPECT_LE(total.metadata + total.file, total.used);
    std::string whyNot;
    const auto bitmap = check::RecordReader::open(device, whyNot)->bitmap();
    ASSERT_TRUE(bitmap.has_value());
    uint64_t ranges = 0, longest = 0, length = 0;
    for (uint64_t lcn = 0; lcn < total.clusters; ++lcn) {
        length = ((*bitmap)[lcn / 8] >> lcn % 8 & 1) != 0 ? 0 : length + 1;
        ranges += length == 1 ? 1 : 0;
        longest = std::max(longest, length);
    }
    EXPECT_EQ(map->freeRanges, ranges);
    EXPECT_EQ(map->freeLongest, longest);
    uint64_t at = 0;
    for (const check::VolumeMap::Part& part : map->parts) {
        EXPECT_LE(part.used, part.clusters);
        const bool hasFile =
            runs.front().lcn < at + part.clusters && runs.front().lcn + runs.front().length > at;
        EXPECT_TRUE(!hasFile || part.file > 0) << at;
        at += part.clusters;
    }
    EXPECT_FALSE(check::readVolumeMap(device, 64, editor.recordCount()).has_value());
}

} // namespace
} // namespace tavelin::test
