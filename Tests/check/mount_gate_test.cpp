// What a volume in doubt may be mounted for.
#include "check/filled_volume.hpp"
#include "check/image_editor.hpp"
#include "check/mount_gate.hpp"
#include "support/memory_device.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

using namespace std::chrono_literals;

void mark(ImageEditor& editor) {
    editor.editValue(ntb::record_volume, ntb::at_volume_information, "",
                     [](ImageEditor::Bytes value) { ntb::put_at(value.data(), 10, 2, 1); });
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

} // namespace
} // namespace tavelin::test
