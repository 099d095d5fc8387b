// Volumes that come in doubt: what `check`, `info` and a mount say of one, and what a mount allows.
#include "check/image_editor.hpp"
#include "core/file_block_device.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/ntfs_volume.hpp"
#include "hosts/fuse/served_volume.hpp"
#include "lab/disk_device.hpp"
#include "support/driver_mount.hpp"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace tavelin::test {
namespace {

std::vector<uint8_t> bytesOf(const SampleVolume& volume) {
    const std::string raw = readFile(volume.image());
    return {raw.begin(), raw.end()};
}

void store(const SampleVolume& volume, const std::vector<uint8_t>& bytes) {
    writeFile(volume.image(), std::string(bytes.begin(), bytes.end()));
}

// Leaves the image as a power cut right after a flush does: the journal has the flush still.
void interrupt(const SampleVolume& volume) {
    const auto device = std::make_shared<JournaledDevice>(
        std::make_shared<FileBlockDevice>(volume.image().string(), 512, false));
    ASSERT_EQ(device->replay(false), 0);
    const auto ntfs = NTFSVolume::open(device, false);
    ASSERT_EQ(device->begin(), 0);
    const std::uint64_t file = ntfs->create("ours", NTFSVolume::kRootIno, NTFSItemType::file);
    const std::vector<std::byte> content(20'000, std::byte{'o'});
    ASSERT_EQ(ntfs->write(file, 0, content).count, content.size());
    ntfs->sync();
    const std::vector<uint8_t> cut = bytesOf(volume);
    ntfs->unmount();
    ASSERT_EQ(device->close(), 0);
    store(volume, cut);
}

// A driver that writes and leaves the journal as it was.
void overtake(const SampleVolume& volume) {
    const auto log = [&] {
        std::optional<LogFile> found;
        JournalAbsence absence{};
        EXPECT_EQ(
            LogFile::find(std::make_shared<FileBlockDevice>(volume.image().string(), 512, false),
                          found, absence),
            0);
        return found.value();
    };
    std::vector<std::byte> records;
    {
        const LogFile before = log(); // has the image open
        records.resize(before.size());
        ASSERT_EQ(before.read(records.data(), 0, records.size()), 0);
    }
    {
        const DriverMount driver(volume);
        driver.make("theirs", std::string(9'000, 't'));
    }
    ASSERT_EQ(log().write(records.data(), 0, records.size()), 0);
}

// A cluster of the file loses its mark in $Bitmap: the next write may take it.
void freeClusterOf(const SampleVolume& volume, const std::string& path) {
    std::vector<uint8_t> bytes = bytesOf(volume);
    ImageEditor editor(bytes);
    editor.setBit(ntb::record_bitmap, ntb::at_data, "",
                  editor.runs(editor.record(path), ntb::at_data).at(0).lcn, false);
    store(volume, bytes);
}

void setFlags(const SampleVolume& volume, uint16_t flags) {
    std::vector<uint8_t> bytes = bytesOf(volume);
    ImageEditor(bytes).editValue(
        ntb::record_volume, ntb::at_volume_information, "",
        [=](ImageEditor::Bytes value) { ntb::put_at(value.data(), 10, 2, flags); });
    store(volume, bytes);
}

struct Case {
    const char* what;
    std::function<void(const SampleVolume&)> prepare;
    std::string info, check, mount; // what each says; a mount says nothing where it is empty
    bool isWritable = true;
    std::string options = {};
};

TEST(VolumesInDoubt, AreSpokenOf) {
    if (const std::string reason = whyNoMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    REQUIRE_DRIVER();
    const std::string refused = "was written to by another system after its last use here";
    const std::string marked = "marked dirty";
    const auto overtaken = [](const SampleVolume& volume) {
        interrupt(volume);
        overtake(volume);
    };
    const auto damaged = [&](const SampleVolume& volume) {
        overtaken(volume);
        freeClusterOf(volume, "/theirs");
    };
    const std::vector<Case> cases{
        {"sound", [](const SampleVolume&) {}, "clean", "nothing is wrong", ""},
        {"a flush waits", interrupt, "the next mount completes it", "as the next mount will", ""},
        {"marked by others", [](const SampleVolume& volume) { setFlags(volume, 1); }, marked,
         "volume-dirty", marked},
        {"marked by others, and a flush waits",
         [](const SampleVolume& volume) {
             setFlags(volume, 1);
             interrupt(volume);
         },
         marked, "volume-dirty", marked},
        {"changed by chkdsk", [](const SampleVolume& volume) { setFlags(volume, 0x8000); },
         "changed by chkdsk", "volume-flags", "can only be read", false, "nocheck"},
        {"overtaken", overtaken, refused, refused, refused},
        {"overtaken and damaged", damaged, refused, "cluster-marked-free", "can only be read",
         false},
        {"the same, unchecked", damaged, refused, refused, refused, true, "nocheck"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const SampleVolume volume({.bytes = 4u << 20});
        volume.leaveUnchecked(); // a refused journal leaves the volume marked
        c.prepare(volume);
        const std::vector<uint8_t> before = bytesOf(volume);
        const std::string image = volume.image();
        const ProcessResult info = run({TAVELIN_PROGRAM, "info", image});
        EXPECT_NE(info.out.find(c.info), std::string::npos) << info.describe();
        const ProcessResult check = run({TAVELIN_PROGRAM, "check", image});
        EXPECT_NE(check.out.find(c.check), std::string::npos) << check.describe();
        EXPECT_TRUE(bytesOf(volume) == before) << "looking at it changed it";

        ServedVolume served(image, c.options);
        const std::string said = served.printed();
        EXPECT_NE(said.find(c.mount), std::string::npos) << said;
        EXPECT_EQ(c.mount.empty(), said.empty()) << said;
        EXPECT_EQ(::access(served.directory().c_str(), W_OK) == 0, c.isWritable);
        // What a bitmap in doubt calls free may be somebody's.
        fstrim_range all{0, UINT64_MAX, 0};
        EXPECT_EQ(::ioctl(Descriptor(served.directory(), O_RDONLY), FITRIM, &all) == 0,
                  c.mount.empty());
        EXPECT_EQ(served.unmount(), 0);
        if (c.mount == refused) {
            const ProcessResult after = run({TAVELIN_PROGRAM, "info", image});
            EXPECT_NE(after.out.find("marked dirty"), std::string::npos) << after.describe();
        }
    }
}

// The kernel refuses a whole directory for such a name, which only a damaged volume has.
TEST_F(MountTest, ANameWithASlashIsLeftOutOfItsDirectory) {
    for (const char* name : {"first", "in_between", "last"}) {
        writeFile(*this / name, name);
    }
    served_.reset();
    volume_->leaveUnchecked();
    std::vector<uint8_t> bytes = bytesOf(*volume_);
    ImageEditor editor(bytes);
    const auto addSlash = [](ImageEditor::Bytes name) {
        constexpr std::array<uint8_t, 4> kBetween{'_', 0, 'b', 0};
        const auto found = std::search(name.begin(), name.end(), kBetween.begin(), kBetween.end());
        ASSERT_NE(found, name.end());
        *found = '/';
    };
    editor.editValue(editor.record("/in_between"), ntb::at_file_name, "", addSlash);
    editor.editEntry(ntb::record_root, "in_between", addSlash);
    store(*volume_, bytes);
    mount();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(names(), (Names{"first", "last"}));
        writeFile(*this / "new", "new");
        std::filesystem::remove(*this / "new");
    }
    EXPECT_EQ(readFile(*this / "last"), "last");
    EXPECT_EQ(served_->unmount(), 0); // with which all is in the log
    const std::string said = served_->logged();
    EXPECT_NE(said.find("1 entries with a slash"), std::string::npos) << said;
    EXPECT_EQ(said.find("with a slash"), said.rfind("with a slash")) << "once is enough";
}

// What is mounted is read as if all that was done before had reached the image.
TEST_F(MountTest, IsCheckedAfterAFlush) {
    writeFile(*this / "file", std::string(100'000, 'x'));
    const ProcessResult check = run({TAVELIN_PROGRAM, "check", volume_->image()});
    EXPECT_EQ(check.status, 0) << check.describe();
    EXPECT_NE(check.out.find("mounted on " + served_->directory().string()), std::string::npos)
        << check.out;
    EXPECT_NE(check.out.find(" 4 files"), std::string::npos) << check.out; // 3 are of $Extend
    const ProcessResult json = run({TAVELIN_PROGRAM, "check", "--json", volume_->image()});
    EXPECT_NE(json.out.find("\"usable\":true"), std::string::npos) << json.describe();
}

} // namespace
} // namespace tavelin::test
