#include "check/filled_volume.hpp"

#include "support/bridge_volume.hpp"

namespace tavelin::test {

std::string numbered(int number) {
    return "name" + std::to_string(1000 + number);
}

std::vector<uint8_t> filledImage(const VolumeGeometry& geometry, int names) {
    BridgeVolume volume(geometry);
    volume.sample().leaveUnchecked(); // it is damaged next, and checked for that
    const auto write = [&](uint64_t ino, uint64_t size, uint64_t offset = 0) {
        EXPECT_EQ(volume.write(ino, patternText(size), offset), 0);
    };
    write(volume.make("file"), 20000);
    write(volume.make("other"), 200000);
    write(volume.make("small"), 100);
    write(volume.make("hiberfil.sys"), 4);
    const uint64_t sparse = volume.make("sparse");
    write(sparse, 5000);
    write(sparse, 5000, 4u << 20);
    const uint64_t streams = volume.make("streams");
    EXPECT_EQ(volume.setStream(streams, "aa", "one"), 0);
    EXPECT_EQ(volume.setStream(streams, "bb", std::string(24, '\0')), 0);
    const uint64_t many = volume.make("many");
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(volume.setStream(many, "stream" + std::to_string(100 + i), std::string(80, 'x')),
                  0);
    }
    volume.makeDirectory("inner", volume.makeDirectory("outer"));
    const uint64_t directory = volume.makeDirectory("dir");
    for (int i = 0; i < names; ++i) {
        volume.make(numbered(i), directory);
    }
    for (int i = names / 2; i < names; ++i) {
        EXPECT_EQ(ntb_unlink(volume, directory, numbered(i).c_str()), 0);
    }
    EXPECT_EQ(volume.unmount(), 0);
    return volume.memory().bytes;
}

} // namespace tavelin::test
