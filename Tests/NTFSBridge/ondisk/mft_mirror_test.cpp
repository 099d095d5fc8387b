// Mounting a volume whose $MFTMirr differs from $MFT.
#include "support/bridge_volume.hpp"

#include <algorithm>
#include <cstring>

namespace tavelin::test {
namespace {

constexpr uint64_t kCluster = 4096;
constexpr uint64_t kRecord = 1024;
constexpr uint64_t kLastByte = kRecord - 1; // of the second sector's update sequence word

uint64_t clusterAt(const std::vector<uint8_t>& image, std::size_t where) {
    uint64_t cluster = 0;
    std::memcpy(&cluster, image.data() + where, sizeof cluster);
    return cluster;
}

class MftMirror : public ::testing::Test {
  protected:
    MftMirror() {
        const SampleVolume sample({.bytes = 4 << 20});
        image = DiskIo::fromFile(sample.image()).bytes;
        table = clusterAt(image, 0x30) * kCluster;
        mirror = clusterAt(image, 0x38) * kCluster;
    }

    // What a mount answers; the device is then in `image`.
    int32_t mount(bool isReadOnly) {
        DiskIo device(image);
        const int32_t error = mountError(device, isReadOnly);
        image = device.bytes;
        return error;
    }

    bool commit(uint64_t number) const {
        const uint8_t* const original = image.data() + table + number * kRecord;
        return std::equal(original, original + kRecord, image.data() + mirror + number * kRecord);
    }

    // As if $MFTMirr still held what was there before the record's last change.
    void age(uint64_t side, uint64_t number) {
        image[side + number * kRecord + 8] ^= 1; // its log sequence number
    }
    // As if only one of the record's sectors had been written.
    void tear(uint64_t side, uint64_t number) { image[side + number * kRecord + kLastByte] ^= 1; }

    std::vector<uint8_t> image;
    uint64_t table = 0;
    uint64_t mirror = 0;
};

TEST_F(MftMirror, IsBroughtIntoAgreement) {
    const std::vector<uint8_t> sound = image;
    age(mirror, 0);
    tear(mirror, 1);
    tear(table, 3);
    ASSERT_EQ(mount(false), 0);
    for (uint64_t number = 0; number < 4; ++number) {
        EXPECT_TRUE(commit(number)) << number;
    }
    EXPECT_EQ(mount(true), 0);
    EXPECT_TRUE(std::equal(sound.begin() + static_cast<std::ptrdiff_t>(table),
                           sound.begin() + static_cast<std::ptrdiff_t>(table + 4 * kRecord),
                           image.begin() + static_cast<std::ptrdiff_t>(table)));
}

TEST_F(MftMirror, IsLeftAloneWhereThatWouldNotHelp) {
    const std::vector<uint8_t> sound = image;
    const auto expectUntouched = [&](const char* what, bool isReadOnly, int32_t wanted) {
        const std::vector<uint8_t> before = image;
        EXPECT_EQ(mount(isReadOnly), wanted) << what;
        EXPECT_TRUE(image == before) << what;
        image = sound;
    };
    age(mirror, 2);
    expectUntouched("read-only: shown as if they agreed", true, 0);

    tear(mirror, 2);
    tear(table, 2);
    expectUntouched("neither is whole", false, EIO);

    age(mirror, 2);
    age(table, 5); // the root, beyond the mirror:
    std::memcpy(image.data() + table + 5 * kRecord, "BAAD", 4);
    expectUntouched("something else is wrong too", false, EIO);
}

TEST_F(MftMirror, OfAHibernatedVolumeIsLeftAlone) {
    BridgeVolume volume({.bytes = 4 << 20});
    ASSERT_EQ(volume.write(volume.make("hiberfil.sys"), "hibr" + std::string(kCluster, '\0')), 0);
    ASSERT_EQ(volume.unmount(), 0);
    image = volume.memory().bytes;
    ASSERT_EQ(mount(false), EPERM);
    age(mirror, 0);
    const std::vector<uint8_t> before = image;
    EXPECT_EQ(mount(false), EIO);
    EXPECT_TRUE(image == before);
}

} // namespace
} // namespace tavelin::test
