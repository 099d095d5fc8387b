// Probing, mounting, volume-wide state, and the bridge as seen from C.
#include "support/bridge_volume.hpp"
#include "support/run_process.hpp"

namespace tavelin::test {
namespace {

TEST(Volume, EveryGeometryKeepsWhatIsWrittenAndPassesTheChecks) {
    const VolumeGeometry geometries[] = {
        {.clusterSize = 512},
        {.clusterSize = 4096},
        {.bytes = 64 << 20, .clusterSize = 65536},
        {.clusterSize = 4096, .sectorSize = 4096},
        {.bytes = (16 << 20) + 1536, .clusterSize = 512},
    };
    for (const VolumeGeometry& geometry : geometries) {
        SCOPED_TRACE(testing::Message()
                     << geometry.bytes << " bytes, cluster " << geometry.clusterSize << ", sector "
                     << geometry.sectorSize);
        BridgeVolume volume(geometry);
        ASSERT_NE(volume, nullptr);
        uint64_t serial = 0;
        EXPECT_EQ(ntb_probe(&volume.memory().io(), &serial), 0);
        EXPECT_EQ(ntb_serial(volume), serial);
        const ntb_statfs space = volume.space();
        EXPECT_EQ(space.clusterSize, geometry.clusterSize);

        std::map<std::string, std::string> files;
        for (const uint64_t size : {0, 1, 600, 4096, 65537, 1500000}) {
            const std::string name = "file of " + std::to_string(size);
            files[name] = patternText(size, static_cast<uint32_t>(size));
            EXPECT_EQ(volume.write(volume.make(name), files[name]), 0);
        }
        const uint64_t directory = volume.makeDirectory("directory");
        for (int i = 0; i < 300; ++i) {
            volume.make("entry " + std::to_string(i), directory);
        }
        const ntb_statfs after = volume.space();
        EXPECT_GE((space.freeClusters - after.freeClusters) * geometry.clusterSize, 1500000u);
        EXPECT_EQ(ntb_sync(volume), 0);

        const SampleVolume& sample = volume.finish();
        EXPECT_EQ(sample.list("/directory").size(), 300u);
        for (const auto& [name, content] : files) {
            EXPECT_TRUE(sample.cat(name) == content) << name;
        }
        ASSERT_EQ(volume.mount(true), 0);
        EXPECT_EQ(volume.list(directory).size(), 300u);
        for (const auto& [name, content] : files) {
            EXPECT_TRUE(volume.read(volume.find(name)) == content) << name;
        }
    }
}

TEST(Volume, RefusesWhatIsNoMountableVolumeAndLeavesItAlone) {
    const SampleVolume sample;
    DiskIo good = DiskIo::fromFile(sample.image());
    const struct {
        const char* what;
        int32_t probe;
        int32_t mount; // -1: any error, -2: that or read-only, to save what is left
        void (*damage)(DiskIo&);
    } cases[] = {
        {"an intact volume", 0, 0, [](DiskIo&) {}},
        {"511 bytes", EINVAL, EINVAL,
         [](DiskIo& d) {
             d = DiskIo({d.bytes.begin(), d.bytes.begin() + 511});
         }},
        {"swapped signature", EINVAL, EINVAL,
         [](DiskIo& d) { std::swap(d.bytes[510], d.bytes[511]); }},
        {"another system's name", EINVAL, EINVAL, [](DiskIo& d) { d.bytes[3] = 'X'; }},
        {"an unreadable device", EINVAL, EINVAL, [](DiskIo& d) { d.failFrom(1, EIO); }},
        {"half a volume", 0, -2,
         [](DiskIo& d) {
             d = DiskIo({d.bytes.begin(), d.bytes.begin() + (8 << 20)});
         }},
        {"no file records", 0, -1,
         [](DiskIo& d) { std::fill_n(d.bytes.begin() + 4 * 4096, 64 << 10, uint8_t{0}); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DiskIo device = good;
        c.damage(device);
        const std::vector<uint8_t> before = device.bytes;
        uint64_t serial = 42;
        EXPECT_EQ(ntb_probe(&device.io(), &serial), c.probe);
        EXPECT_EQ(ntb_probe(&device.io(), nullptr), c.probe);
        EXPECT_EQ(serial == 42, c.probe != 0);
        for (const bool isReadOnly : {false, true}) {
            const int32_t error = mountError(device, isReadOnly);
            const bool mayMount = c.mount == 0 || (c.mount == -2 && isReadOnly);
            EXPECT_TRUE(c.mount > 0 ? error == c.mount
                        : mayMount  ? error == 0
                                    : error > 0)
                << error;
            EXPECT_TRUE(c.mount == 0 || device.bytes == before);
        }
    }
}

TEST(Volume, LabelsUpToTheirLongestAreOnTheDeviceOnceSynced) {
    BridgeVolume volume({.label = "Before"});
    const auto label = [&] {
        char* const text = ntb_label(volume);
        const std::string copy = text;
        free(text);
        return copy;
    };
    EXPECT_EQ(label(), "Before");
    std::string longest;
    for (int i = 0; i < 128; ++i) {
        longest += "\u00fc";
    }
    EXPECT_EQ(ntb_set_label(volume, (longest + "x").c_str()), ENAMETOOLONG);
    EXPECT_EQ(ntb_set_label(volume, "\xff"), EILSEQ);
    EXPECT_EQ(ntb_set_label(volume, nullptr), EINVAL);
    EXPECT_EQ(label(), "Before");
    const std::filesystem::path synced = volume.sample().directory() / "synced";
    for (const std::string& wanted : {longest, std::string(), std::string("After")}) {
        EXPECT_EQ(ntb_set_label(volume, wanted.c_str()), 0);
        EXPECT_EQ(ntb_is_dirty(volume), 1);
        EXPECT_EQ(label(), wanted);
        EXPECT_EQ(ntb_sync(volume), 0);
        volume.memory().save(synced);
        EXPECT_EQ(runOrThrow({"ntfslabel", "--force", synced.string()}), wanted + "\n");
        EXPECT_EQ(volume.unmount(), 0);
        ASSERT_EQ(volume.mount(), 0);
        EXPECT_EQ(label(), wanted);
    }
    volume.finish();
}

TEST(Volume, FlushesReachTheHostOnlyWhenThereIsSomethingToWrite) {
    BridgeVolume volume;
    ASSERT_EQ(ntb_sync(volume), 0);
    volume.memory().takeLog();
    EXPECT_EQ(ntb_is_dirty(volume), 0);
    EXPECT_EQ(ntb_sync(volume), 0);
    EXPECT_TRUE(volume.memory().takeLog().empty());

    const uint64_t ino = volume.make("file");
    EXPECT_GT(volume.stats().dirtyPages, 0u);
    volume.memory().failFrom(1, ENXIO);
    EXPECT_EQ(ntb_sync(volume), ENXIO);
    EXPECT_EQ(ntb_is_dirty(volume), 1);
    EXPECT_EQ(ntb_flush(volume, ino), ENXIO);
    volume.memory().heal();
    volume.memory().takeLog();
    EXPECT_EQ(ntb_flush(volume, ino), 0);
    EXPECT_EQ(volume.memory().takeLog().back().call, DiskCall::flush);
    EXPECT_EQ(volume.stats().dirtyPages, 0u);

    volume.make("another");
    volume.memory().failFrom(1, ENXIO);
    EXPECT_EQ(volume.unmount(), ENXIO) << "what could not be written is not kept quiet";
}

TEST(Volume, ManyInodesStayAtHand) {
    BridgeVolume volume;
    ASSERT_NE(volume, nullptr);
    std::vector<uint64_t> files;
    for (int i = 0; i < 500; ++i) {
        files.push_back(volume.make("file " + std::to_string(i)));
    }
    const auto pagesReadForAll = [&] {
        const ntb_stats before = volume.stats();
        for (const uint64_t file : files) {
            volume.attributes(file);
        }
        const ntb_stats after = volume.stats();
        return after.cacheHits + after.cacheMisses - before.cacheHits - before.cacheMisses;
    };
    pagesReadForAll();
    EXPECT_EQ(pagesReadForAll(), 0u) << "records were read again";
}

TEST(Volume, ReadOnlyRefusesEveryChange) {
    BridgeVolume volume;
    const uint64_t ino = volume.make("file");
    EXPECT_EQ(volume.setStream(ino, "stream", "value"), 0);
    EXPECT_EQ(volume.unmount(), 0);
    ASSERT_EQ(volume.mount(true), 0);
    const std::vector<uint8_t> before = volume.memory().bytes;
    uint64_t out = 0;
    const ntb_time now = {1700000000, 0};
    EXPECT_EQ(ntb_is_readonly(volume), 1);
    EXPECT_EQ(ntb_create(volume, NTB_ROOT_INO, "new", NTB_TYPE_FILE, &out), EROFS);
    EXPECT_EQ(ntb_create(volume, NTB_ROOT_INO, "a/b", NTB_TYPE_FILE, &out), EROFS);
    EXPECT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "new", "target", nullptr, &out), EROFS);
    EXPECT_EQ(ntb_write(volume, ino, 0, "x", 1, &out), EROFS);
    EXPECT_EQ(ntb_truncate(volume, ino, 10), EROFS);
    EXPECT_EQ(volume.unlink("file"), EROFS);
    EXPECT_EQ(volume.rename("file", "file"), EROFS);
    EXPECT_EQ(ntb_set_times(volume, ino, &now, nullptr, nullptr, nullptr), EROFS);
    EXPECT_EQ(ntb_set_hidden(volume, ino, 1), EROFS);
    EXPECT_EQ(ntb_setxattr(volume, ino, "", "x", 1, NTB_XATTR_ANY), EROFS);
    EXPECT_EQ(ntb_removexattr(volume, ino, "stream"), EROFS);
    EXPECT_EQ(ntb_set_label(volume, "label"), EROFS);
    EXPECT_EQ(ntb_flush(volume, 999999), 0);
    EXPECT_EQ(ntb_sync(volume), 0);
    ntb_set_windows_names(volume, 5);
    EXPECT_EQ(ntb_windows_names(volume), 1);
    EXPECT_EQ(ntb_create(volume, NTB_ROOT_INO, "aux", NTB_TYPE_FILE, &out), EINVAL);
    EXPECT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "a:b", "target", nullptr, &out), EINVAL);
    EXPECT_EQ(volume.stream(ino, "stream").second, "value");
    EXPECT_EQ(volume.unmount(), 0);
    EXPECT_TRUE(volume.memory().bytes == before);
}

TEST(Volume, AProgramInCUsesIt) {
    const SampleVolume sample;
    const ProcessResult result = run({C_PROGRAM, sample.image().string()});
    EXPECT_TRUE(result.ok()) << result.describe();
    EXPECT_EQ(sample.cat("/file"), "Hello from C");
    EXPECT_NO_THROW(sample.check());
}

} // namespace
} // namespace tavelin::test
