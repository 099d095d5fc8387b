// File data, times, flags and named streams.
#include "NTFSBridge/errors.hpp"
#include "NTFSBridge/times.hpp"
#include "NTFSBridge/volume.hpp"
#include "support/bridge_volume.hpp"

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <span>

namespace tavelin::test {
namespace {

constexpr ntb_time kPast = {1000000000, 123456700};

TEST(FileData, ReadsAndWritesAtTheEdges) {
    BridgeVolume volume;
    const uint64_t ino = volume.make("file");
    uint64_t done = 99;
    char byte = 0;
    EXPECT_EQ(volume.write(ino, patternText(100)), 0);
    EXPECT_EQ(volume.read(ino, 90, 100), patternText(100).substr(90));
    for (const uint64_t offset : {uint64_t{100}, uint64_t{5000}, UINT64_MAX}) {
        EXPECT_EQ(ntb_read(volume, ino, offset, &byte, 1, &done), 0);
        EXPECT_EQ(done, 0u);
    }
    EXPECT_EQ(ntb_read(volume, NTB_ROOT_INO, 0, &byte, 1, &done), EISDIR);
    EXPECT_EQ(ntb_write(volume, NTB_ROOT_INO, 0, "x", 1, &done), EISDIR);
    EXPECT_EQ(ntb_truncate(volume, NTB_ROOT_INO, 1), EISDIR);
    EXPECT_EQ(ntb_flush(volume, NTB_ROOT_INO), EISDIR);
    EXPECT_EQ(ntb_write(volume, ino, UINT64_MAX, "x", 1, &done), EFBIG);
    EXPECT_EQ(ntb_write(volume, ino, INT64_MAX, "x", 1, &done), EFBIG);
    EXPECT_EQ(ntb_truncate(volume, ino, UINT64_MAX), EFBIG);
    EXPECT_EQ(volume.write(ino, std::string(32 << 20, 'x')), ENOSPC);
    EXPECT_EQ(ntb_truncate(volume, ino, 0), 0);

    const uint64_t far = volume.make("far");
    EXPECT_EQ(volume.write(far, "end", 1 << 20), 0);
    EXPECT_TRUE(volume.read(far) == std::string(1 << 20, '\0') + "end");
    volume.finish();
}

// With FILE_ATTR_COMPRESSED, what is made in a directory from now on is compressed.
void setFlag(BridgeVolume& volume, uint64_t ino, FILE_ATTR_FLAGS flag) {
    const auto* const vol = static_cast<ntb_vol*>(volume);
    ntb::inode_guard inode;
    ASSERT_EQ(inode.open(vol->volume, ino), 0);
    ntb::set_flag(inode.get(), flag, true);
    NInoFileNameSetDirty(inode.get());
    ntfs_inode_mark_dirty(inode.get());
    ASSERT_EQ(inode.close(), 0);
}

TEST(FileData, RandomChangesOfACompressedFileMatchAString) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (const uint32_t clusterSize : {512u, 4096u}) { // units of 8 and 64 KiB are compressed
        BridgeVolume volume({.clusterSize = clusterSize});
        const uint64_t directory = volume.makeDirectory("directory");
        setFlag(volume, directory, FILE_ATTR_COMPRESSED);
        const uint64_t ino = volume.make("file", directory);
        std::string model;
        for (int step = 0; step < 300; ++step) {
            const uint64_t place = random() % (random() % 4 == 0 ? 400000 : 3000);
            if (random() % 5 == 0) {
                ASSERT_EQ(ntb_truncate(volume, ino, place), 0);
                model.resize(place);
            } else {
                const std::string data = patternText(random() % 9000, static_cast<uint32_t>(step));
                ASSERT_EQ(volume.write(ino, data, place), 0);
                if (!data.empty()) {
                    model.resize(std::max<size_t>(model.size(), place + data.size()));
                    model.replace(place, data.size(), data);
                }
            }
            ASSERT_TRUE(volume.read(ino) == model) << step;
        }
        model.assign(20000, 'c');
        ASSERT_EQ(ntb_truncate(volume, ino, 0), 0);
        ASSERT_EQ(volume.write(ino, model), 0);
        EXPECT_LT(volume.attributes(ino).alloc_size, model.size());
        EXPECT_NE(volume.attributes(ino).flags & NTB_FLAG_COMPRESSED, 0u);
        EXPECT_TRUE(volume.finish().cat("/directory/file") == model);
    }
}

constexpr uint64_t kPlanned = 300'000;

// Files whose content is on the device.
struct PlannedFiles : BridgeVolume {
    uint64_t plain(const std::string& name, uint64_t directory = NTB_ROOT_INO) {
        const uint64_t ino = make(name, directory);
        EXPECT_EQ(write(ino, content), 0);
        EXPECT_EQ(ntb_sync(*this), 0);
        return ino;
    }
    uint64_t compressed(const std::string& name) {
        const uint64_t directory = makeDirectory("compressed");
        setFlag(*this, directory, FILE_ATTR_COMPRESSED);
        return plain(name, directory);
    }
    uint64_t withHole(const std::string& name) {
        const uint64_t ino = plain(name);
        EXPECT_EQ(write(ino, "end", 3 * kPlanned), 0);
        EXPECT_EQ(ntb_sync(*this), 0);
        return ino;
    }
    uint64_t neverWrittenToTheEnd(const std::string& name) {
        const uint64_t ino = plain(name);
        EXPECT_EQ(ntb_allocate(*this, ino, 0, kPlanned + 9000, 0), 0);
        EXPECT_EQ(ntb_sync(*this), 0);
        return ino;
    }
    uint64_t changed(const std::string& name) {
        const uint64_t ino = plain(name);
        EXPECT_EQ(write(ino, "new", kPlanned - 5), 0);
        return ino;
    }
    uint64_t inRecord(const std::string& name) {
        const uint64_t ino = make(name);
        EXPECT_EQ(write(ino, "small"), 0);
        return ino;
    }
    uint64_t gone(const std::string& name) {
        const uint64_t ino = plain(name);
        return ntb_reference(ino, static_cast<uint16_t>(attributes(ino).seq + 1));
    }
    // On a volume that is full but for two places.
    uint64_t inTwoPieces(const std::string& name) {
        int made = 0;
        while (write(make("f" + std::to_string(made)), content) == 0) {
            ++made;
        }
        for (const int gap : {made / 4, made / 2}) {
            EXPECT_EQ(ntb_unlink(*this, NTB_ROOT_INO, ("f" + std::to_string(gap)).c_str()), 0);
        }
        const uint64_t ino = make(name);
        EXPECT_EQ(write(ino, content + content), 0);
        EXPECT_EQ(ntb_sync(*this), 0);
        return ino;
    }

    const std::string content = patternText(kPlanned);
};

TEST(FileData, IsPlannedWhereTheDeviceHasItAsItIs) {
    PlannedFiles volume;
    const struct Plan {
        const char* what;
        int32_t error;
        uint32_t pieces;
        uint64_t offset;
        std::function<uint64_t(PlannedFiles&, const char* name)> make;
    } cases[] = {
        {"from a page on", 0, 1, 4096, [](auto& v, auto n) { return v.plain(n); }},
        {"from within a sector on", 0, 1, 5, [](auto& v, auto n) { return v.plain(n); }},
        {"behind the end", EAGAIN, 0, kPlanned, [](auto& v, auto n) { return v.plain(n); }},
        {"in its record", EAGAIN, 0, 0, &PlannedFiles::inRecord},
        {"with a hole", EAGAIN, 0, 4096, &PlannedFiles::withHole},
        {"never written", EAGAIN, 0, kPlanned - 9, &PlannedFiles::neverWrittenToTheEnd},
        {"compressed", EAGAIN, 0, 4096, &PlannedFiles::compressed},
        {"changed in the cache", EAGAIN, 0, 4096, &PlannedFiles::changed},
        {"no file", EISDIR, 0, 0, [](auto&, auto) { return NTB_ROOT_INO; }},
        {"another file by now", ESTALE, 0, 0, &PlannedFiles::gone},
        {"in two pieces", 0, 2, kPlanned / 2, &PlannedFiles::inTwoPieces},
    };
    for (const Plan& c : cases) {
        SCOPED_TRACE(c.what);
        const uint64_t ino = c.make(volume, c.what);
        ntb_extent extents[2] = {};
        uint32_t count = 9;
        EXPECT_EQ(ntb_plan_read(volume, ino, c.offset, kPlanned, extents, 2, &count), c.error);
        if (c.error != 0) {
            continue;
        }
        EXPECT_EQ(count, c.pieces);
        std::string found;
        for (const ntb_extent& extent : std::span(extents, count)) {
            found.append(reinterpret_cast<const char*>(volume.memory().bytes.data()) +
                             extent.offset,
                         extent.length);
        }
        EXPECT_TRUE(found == volume.read(ino, c.offset, kPlanned));
        EXPECT_EQ(ntb_plan_read(volume, ino, c.offset, kPlanned, extents, count - 1, &count),
                  EAGAIN);
    }
}

// What the root directory's index has of a file: listings of other systems show it.
FILE_NAME_ATTR indexCopy(BridgeVolume& volume, uint64_t ino) {
    const auto* const vol = static_cast<ntb_vol*>(volume);
    ntb::inode_guard root;
    ntb::inode_guard file;
    EXPECT_EQ(root.open(vol->volume, NTB_ROOT_INO), 0);
    EXPECT_EQ(file.open(vol->volume, ino), 0);
    ntb::attribute_search search(file.get());
    EXPECT_TRUE(search.find(AT_FILE_NAME, AT_UNNAMED));
    const ATTR_RECORD& name = *search.found();
    const std::unique_ptr<ntfs_index_context, decltype(&ntfs_index_ctx_put)> index(
        ntfs_index_ctx_get(root.get(), NTFS_INDEX_I30, 4), ntfs_index_ctx_put);
    const auto* const key = reinterpret_cast<const uint8_t*>(&name) + name.value_offset;
    EXPECT_EQ(ntfs_index_lookup(key, static_cast<int>(name.value_length), index.get()), 0);
    FILE_NAME_ATTR copy = {};
    std::memcpy(&copy, index->data, sizeof copy);
    return copy;
}

TEST(FileData, OnlyRealChangesMoveTheTimes) {
    BridgeVolume volume;
    const uint64_t ino = volume.make("file");
    EXPECT_EQ(volume.write(ino, "12345"), 0);
    const struct {
        const char* what;
        bool isDataTimeNew;
        bool isChangeTimeNew;
        int32_t (*change)(BridgeVolume&, uint64_t);
    } cases[] = {
        {"no bytes", false, false, [](auto& v, auto i) { return v.write(i, ""); }},
        {"same size", false, false, [](auto& v, auto i) { return ntb_truncate(v, i, 5); }},
        {"hiding", false, false, [](auto& v, auto i) { return ntb_set_hidden(v, i, 1); }},
        {"writing", true, true, [](auto& v, auto i) { return v.write(i, "x"); }},
        {"truncating", true, true, [](auto& v, auto i) { return ntb_truncate(v, i, 3); }},
        {"growing", true, true, [](auto& v, auto i) { return ntb_truncate(v, i, 3000); }},
        {"a stream", false, true, [](auto& v, auto i) { return v.setStream(i, "s", "v"); }},
        {"a stream less", false, true, [](auto& v, auto i) { return ntb_removexattr(v, i, "s"); }},
        {"linking", false, true, [](auto& v, auto i) { return ntb_link(v, i, 5, "second"); }},
        {"renaming", false, true,
         [](auto& v, uint64_t) { return ntb_rename(v, 5, "file", 5, "renamed"); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(ntb_set_times(volume, ino, &kPast, &kPast, &kPast, &kPast), 0);
        EXPECT_EQ(c.change(volume, ino), 0);
        const ntb_attr attr = volume.attributes(ino);
        EXPECT_EQ(attr.modify_time.seconds != kPast.seconds, c.isDataTimeNew);
        EXPECT_EQ(attr.change_time.seconds != kPast.seconds, c.isChangeTimeNew);
        EXPECT_EQ(attr.access_time.nanoseconds, kPast.nanoseconds);
        EXPECT_EQ(attr.birth_time.seconds, kPast.seconds);
        const FILE_NAME_ATTR copy = indexCopy(volume, ino);
        EXPECT_EQ(ntb::to_unix_time(copy.last_data_change_time).seconds, attr.modify_time.seconds);
        EXPECT_EQ(ntb::to_unix_time(copy.last_mft_change_time).seconds, attr.change_time.seconds);
        EXPECT_EQ((copy.file_attributes & FILE_ATTR_HIDDEN) != 0,
                  (attr.flags & NTB_FLAG_HIDDEN) != 0);
        EXPECT_EQ(static_cast<uint64_t>(copy.allocated_size), attr.alloc_size);
    }
    ASSERT_EQ(ntb_set_times(volume, NTB_ROOT_INO, &kPast, &kPast, &kPast, &kPast), 0);
    volume.make("new");
    EXPECT_NE(volume.attributes(NTB_ROOT_INO).modify_time.seconds, kPast.seconds);
}

TEST(Metadata, TimesAndFlagsSurviveARemount) {
    BridgeVolume volume;
    const uint64_t ino = volume.make("file");
    const ntb_time before1970 = {0, -500000000};
    const ntb_time whole1601 = {-11644473600, 0};
    const ntb_time before1601 = {whole1601.seconds - 1, 0};
    const ntb_time fine = {1700000000, 123456789};
    const ntb_time beyond = {INT64_MAX, 0};
    EXPECT_EQ(ntb_set_times(volume, ino, &before1601, &fine, &beyond, &before1970), 0);
    EXPECT_EQ(ntb_set_hidden(volume, ino, 1), 0);
    setFlag(volume, ino, FILE_ATTR_READONLY);
    EXPECT_EQ(volume.unmount(), 0);
    ASSERT_EQ(volume.mount(), 0);
    ntb_attr attr = volume.attributes(ino);
    EXPECT_EQ(attr.access_time.seconds, whole1601.seconds);
    EXPECT_EQ(attr.modify_time.nanoseconds, 123456700);
    EXPECT_GT(attr.change_time.seconds, 900000000000);
    EXPECT_EQ(attr.birth_time.seconds, 0);
    EXPECT_EQ(attr.birth_time.nanoseconds, 0);
    EXPECT_EQ(attr.flags, uint32_t{NTB_FLAG_HIDDEN | NTB_FLAG_READ_ONLY});
    EXPECT_EQ(volume.list().count("file"), 1u) << "hidden files are listed";

    EXPECT_EQ(ntb_set_times(volume, ino, nullptr, &whole1601, nullptr, nullptr), 0);
    EXPECT_EQ(ntb_set_hidden(volume, ino, 0), 0);
    attr = volume.attributes(ino);
    EXPECT_EQ(attr.modify_time.seconds, whole1601.seconds);
    EXPECT_GT(attr.change_time.seconds, 900000000000);
    EXPECT_EQ(attr.flags & NTB_FLAG_HIDDEN, 0u);
    EXPECT_EQ(ntb_set_times(volume, 999999, &fine, nullptr, nullptr, nullptr) == 0, false);
    volume.finish();
}

TEST(Metadata, SizesOfFilesAndDirectories) {
    BridgeVolume volume;
    const uint64_t directory = volume.makeDirectory("directory");
    EXPECT_EQ(volume.attributes(directory).size, 0u);
    EXPECT_EQ(volume.attributes(directory).link_count, 2u);
    for (int i = 0; i < 100; ++i) {
        volume.make("some longer name " + std::to_string(i), directory);
    }
    EXPECT_GE(volume.attributes(directory).size, 4096u);
    const uint64_t file = volume.make("file");
    EXPECT_EQ(volume.write(file, std::string(5000, 'x')), 0);
    EXPECT_EQ(volume.attributes(file).size, 5000u);
    EXPECT_EQ(volume.attributes(file).alloc_size, 8192u);
}

TEST(Streams, CreateReplaceReadAndRemove) {
    BridgeVolume volume;
    const uint64_t ino = volume.make("file");
    EXPECT_EQ(volume.write(ino, "unnamed"), 0);
    EXPECT_TRUE(volume.streams(ino).empty());
    const int32_t noAttribute = ntb::no_such_attribute;
    const std::string large = patternText(1 << 20);

    EXPECT_EQ(volume.stream(ino, "a").first, noAttribute);
    EXPECT_EQ(ntb_removexattr(volume, ino, "a"), noAttribute);
    EXPECT_EQ(volume.setStream(ino, "a", "1", NTB_XATTR_REPLACE), noAttribute);
    EXPECT_TRUE(volume.streams(ino).empty());
    EXPECT_EQ(volume.setStream(ino, "a", large, NTB_XATTR_CREATE), 0);
    EXPECT_EQ(volume.setStream(ino, "a", "1", NTB_XATTR_CREATE), EEXIST);
    EXPECT_TRUE(volume.stream(ino, "a").second == large);
    EXPECT_EQ(volume.setStream(ino, "a", "abc", NTB_XATTR_REPLACE), 0);
    EXPECT_EQ(volume.stream(ino, "a"), std::pair(0, std::string("abc")));
    EXPECT_EQ(volume.setStream(ino, "b", ""), 0);
    EXPECT_EQ(volume.stream(ino, "b"), std::pair(0, std::string()));
    EXPECT_EQ(volume.streams(ino), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(volume.attributes(ino).size, 7u);

    const std::string longest(255, 's');
    EXPECT_EQ(volume.setStream(NTB_ROOT_INO, longest, "of a directory"), 0);
    EXPECT_EQ(volume.stream(NTB_ROOT_INO, longest).second, "of a directory");
    EXPECT_EQ(volume.setStream(ino, longest + "s", "x"), ENAMETOOLONG);
    EXPECT_EQ(volume.setStream(ino, "", "x"), EINVAL);
    EXPECT_EQ(volume.setStream(ino, "\xff", "x"), EILSEQ);
    EXPECT_EQ(volume.stream(ino, "").first, EINVAL);

    EXPECT_EQ(ntb_removexattr(volume, ino, "b"), 0);
    EXPECT_EQ(volume.finish().cat("/file", "a"), "abc");
}

TEST(Streams, OneInManyPiecesIsWrittenAndListedOnce) {
    BridgeVolume volume({.bytes = 8 << 20, .clusterSize = 512});
    const uint64_t ino = volume.make("file");
    // A full volume with every other file removed has free space in pieces only, so many that the
    // list of a stream's pieces does not fit into one record.
    int count = 0;
    uint64_t made = 0;
    while (ntb_create(volume, NTB_ROOT_INO, std::to_string(count).c_str(), NTB_TYPE_FILE, &made) ==
               0 &&
           volume.write(made, std::string(1024, 'x')) == 0) {
        count += 1;
    }
    for (int i = 0; i < count; i += 2) {
        ASSERT_EQ(volume.unlink(std::to_string(i)), 0);
    }
    const std::string value = patternText(500000);
    ASSERT_EQ(volume.setStream(ino, "pieces", value), 0);
    EXPECT_EQ(volume.write(ino, value), 0);
    EXPECT_EQ(volume.streams(ino), (std::vector<std::string>{"pieces"}));
    EXPECT_TRUE(volume.stream(ino, "pieces").second == value);
    EXPECT_TRUE(volume.read(ino) == value);
    EXPECT_TRUE(volume.finish().cat("/file", "pieces") == value);
}

} // namespace
} // namespace tavelin::test
