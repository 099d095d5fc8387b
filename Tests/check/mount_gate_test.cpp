// What a volume in doubt may be mounted for, and what is said of one that Windows still has.
#include "check/check.hpp"
#include "check/filled_volume.hpp"
#include "check/image_editor.hpp"
#include "check/mount_gate.hpp"
#include "support/memory_device.hpp"

#include <gtest/gtest.h>

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
    EXPECT_TRUE(check::judgeForWriting(device, "is marked dirty", 0s).mayWrite); // had no time
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

TEST(VolumesOfWindows, SayWhatCannotBeTrusted) {
    const std::vector<uint8_t> sound = filledImage({}, 4);
    const auto notesOf = [&](const std::function<void(ImageEditor&)>& change) {
        MemoryDevice device(sound);
        ImageEditor editor(device.bytes);
        change(editor);
        const check::Report report = check::checkVolume(device);
        EXPECT_TRUE(report.isClean()) << check::complaints(device);
        return report.notes.empty() ? "" : report.notes.at(0);
    };
    // A page of Windows' journal: where its restart area is, the version, whether clients use it.
    const auto restartPage = [](uint16_t version, uint16_t clients) {
        return [=](ImageEditor& editor) {
            editor.editValue(ntb::record_logfile, ntb::at_data, "", [&](ImageEditor::Bytes log) {
                ntb::put_at(log.data(), 0, 4, 0x52545352); // "RSTR"
                ntb::put_at(log.data(), 0x18, 2, 0x30);
                ntb::put_at(log.data(), 0x1c, 2, version);
                ntb::put_at(log.data(), 0x3c, 2, clients);
                ntb::put_at(log.data(), 0x3e, 2, 0);
            });
        };
    };
    EXPECT_EQ(notesOf([](ImageEditor&) {}), "");
    EXPECT_EQ(notesOf(restartPage(1, 0xffff)), "");
    EXPECT_NE(notesOf(restartPage(1, 0)).find("not shut down properly"), std::string::npos);
    EXPECT_NE(notesOf(restartPage(2, 0xffff)).find("fast startup"), std::string::npos);
    const auto hibernate = [](ImageEditor& editor) {
        editor.editValue(
            editor.record("/hiberfil.sys"), ntb::at_data, "",
            [](ImageEditor::Bytes data) { ntb::put_at(data.data(), 0, 4, 0x72626968); }); // "hibr"
    };
    EXPECT_NE(notesOf(hibernate).find("free space, directories and files"), std::string::npos);
}

} // namespace
} // namespace tavelin::test
