// Lookup, listing, creating, removing, renaming, symbolic links.
#include "NTFSBridge/volume.hpp"
#include "support/bridge_volume.hpp"

#include <algorithm>

namespace tavelin::test {
namespace {

std::string repeated(const char* unit, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += unit;
    }
    return text;
}

TEST(Namespace, NameRules) {
    BridgeVolume volume;
    const uint64_t file = volume.make("file");
    const struct {
        std::string name;
        int32_t create;
        int32_t underWindowsRule;
    } cases[] = {
        {"", EINVAL, EINVAL},
        {".", EINVAL, EINVAL},
        {"..", EINVAL, EINVAL},
        {"a/b", EINVAL, EINVAL},
        {"\xc3", EILSEQ, EILSEQ},
        {"file", EEXIST, EEXIST},
        {repeated("n", 256), ENAMETOOLONG, ENAMETOOLONG},
        {repeated("\U0001F600", 128), ENAMETOOLONG, ENAMETOOLONG},
        {repeated("n", 255), 0, 0},
        {repeated("\u20ac", 255), 0, 0},
        {"\U0001F600 r\u00e9sum\u00e9", 0, 0},
        {"aux", 0, EINVAL},
        {"a:b", 0, EINVAL},
        {"trailing.", 0, EINVAL},
        {"File", 0, 0}, // another name than "file"
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        uint64_t ino = 0;
        for (const bool isStrict : {true, false}) {
            ntb_set_windows_names(volume, isStrict ? 1 : 0);
            const int32_t expected = isStrict ? c.underWindowsRule : c.create;
            const char* const name = c.name.c_str();
            for (const bool isLink : {false, true}) {
                EXPECT_EQ(isLink ? ntb_symlink(volume, NTB_ROOT_INO, name, "t", nullptr, &ino)
                                 : ntb_create(volume, NTB_ROOT_INO, name, NTB_TYPE_FILE, &ino),
                          expected);
                if (expected == 0) {
                    EXPECT_EQ(volume.find(c.name), ino);
                    EXPECT_EQ(volume.unlink(c.name), 0);
                }
            }
            if (expected != EEXIST) {
                EXPECT_EQ(volume.rename("file", c.name), expected);
            }
            if (expected == 0) {
                ntb_set_windows_names(volume, 0);
                EXPECT_EQ(volume.rename(c.name, "file"), 0);
            }
        }
    }
    EXPECT_EQ(ntb_create(volume, NTB_ROOT_INO, nullptr, 1, nullptr), EINVAL);
    EXPECT_EQ(ntb_rename(volume, NTB_ROOT_INO, "file", NTB_ROOT_INO, nullptr), EINVAL);
    EXPECT_EQ(volume.list(), (std::map<std::string, uint32_t>{{"file", NTB_TYPE_FILE}}));
    EXPECT_EQ(volume.find("file"), file);
    volume.finish();
}

TEST(Namespace, SystemFilesAreInvisibleAndUntouchable) {
    BridgeVolume volume;
    uint64_t ino = 0;
    EXPECT_EQ(ntb_lookup(volume, NTB_ROOT_INO, "$MFT", &ino), ENOENT);
    EXPECT_EQ(volume.unlink("$MFT"), EPERM);
    EXPECT_EQ(volume.rename("$MFT", "mine"), ENOENT);
    EXPECT_EQ(ntb_create(volume, 11, "new", 1, &ino), EPERM);
    EXPECT_EQ(ntb_unlink(volume, 11, "$ObjId"), EPERM);
    for (const uint64_t system : {0, 11, 24, 25, 26}) { // the last are in $Extend
        EXPECT_EQ(ntb_parent(volume, system, &ino), ENOENT) << system;
    }
    volume.make("mine");
    EXPECT_EQ(ntb_rename(volume, NTB_ROOT_INO, "mine", 11, "mine"), EPERM);
    EXPECT_EQ(ntb_rename(volume, 11, "$ObjId", NTB_ROOT_INO, "$ObjId"), EPERM);
    EXPECT_EQ(volume.unlink("mine"), 0);
    EXPECT_TRUE(volume.list().empty());
    volume.finish();
}

TEST(Namespace, RemovesFilesAndEmptyDirectories) {
    BridgeVolume volume;
    volume.makeDirectory("first of all"); // makes the file table grow
    const ntb_statfs before = volume.space();
    const uint64_t directory = volume.makeDirectory("directory");
    const uint64_t file = volume.make("file", directory);
    EXPECT_EQ(volume.write(file, patternText(300000)), 0);
    const ntb_statfs after = volume.space();
    const uint64_t taken = (before.freeClusters - after.freeClusters) * before.clusterSize;
    EXPECT_GE(taken, 300000u);
    EXPECT_EQ(before.freeFiles - after.freeFiles, 2 + taken / 1024); // a record takes a KiB
    uint64_t ino = 0;
    EXPECT_EQ(volume.unlink("directory"), ENOTEMPTY);
    EXPECT_EQ(ntb_unlink(volume, directory, "missing"), ENOENT);
    EXPECT_EQ(ntb_unlink(volume, file, "x"), ENOTDIR);
    EXPECT_EQ(ntb_lookup(volume, file, "x", &ino), ENOTDIR);
    EXPECT_EQ(ntb_create(volume, file, "x", 1, &ino), ENOTDIR);
    EXPECT_EQ(ntb_readdir(volume, file, nullptr, nullptr), ENOTDIR);
    EXPECT_EQ(volume.find("file", directory), file);
    EXPECT_EQ(ntb_unlink(volume, directory, "file"), 0);
    EXPECT_EQ(volume.unlink("directory"), 0);
    EXPECT_EQ(ntb_readdir(volume, directory, nullptr, nullptr), ENOENT);
    EXPECT_EQ(volume.space().freeClusters, before.freeClusters);
    volume.finish();
}

struct Rename {
    const char* from;
    const char* to;
    int32_t result;
};

TEST(Namespace, Renames) {
    BridgeVolume volume;
    const uint64_t a = volume.makeDirectory("a");
    const uint64_t b = volume.makeDirectory("b", a);
    volume.makeDirectory("empty");
    volume.makeDirectory("c", b);
    const uint64_t readme = volume.make("readme.txt");
    EXPECT_EQ(volume.write(readme, "text"), 0);
    volume.make("inside", b);
    volume.make("other");
    const Rename cases[] = {
        {"/readme.txt", "/readme.txt", 0},
        {"/missing", "/x", ENOENT},
        {"/readme.txt", "/README.TXT", 0},
        {"/README.TXT", "/a/b/moved", 0},
        {"/a", "/a/x", EINVAL},
        {"/a", "/a/b/c/x", EINVAL},
        {"/a/b", "/a/b/c/x", EINVAL},
        {"/a", "/a/b/moved/x", ENOTDIR}, // which is below it, and a file
        {"/other", "/empty", EISDIR},
        {"/empty", "/other", ENOTDIR},
        {"/empty", "/a", ENOTEMPTY},
        {"/other", "/other/x", ENOTDIR},
        {"/a/b", "/empty", 0},
        {"/other", "/empty/inside", 0},
        {"/empty/moved", "/final", 0},
    };
    for (const Rename& c : cases) {
        const auto split = [&](const std::string& path) {
            const size_t slash = path.rfind('/');
            return std::pair(volume.resolve(path.substr(0, slash)), path.substr(slash + 1));
        };
        const auto [parent, name] = split(c.from);
        const auto [newParent, newName] = split(c.to);
        EXPECT_EQ(ntb_rename(volume, parent, name.c_str(), newParent, newName.c_str()), c.result)
            << c.from << " to " << c.to;
    }
    EXPECT_EQ(volume.list(),
              (std::map<std::string, uint32_t>{{"a", 2}, {"empty", 2}, {"final", 1}}));
    EXPECT_EQ(volume.list(b), (std::map<std::string, uint32_t>{{"c", 2}, {"inside", 1}}));
    EXPECT_EQ(volume.find("empty"), b);
    EXPECT_EQ(volume.find("final"), readme);
    const auto exchange = [&](uint64_t parent, const char* name, uint64_t other, const char* to) {
        return ntb_exchange(volume, parent, name, other, to);
    };
    EXPECT_EQ(exchange(NTB_ROOT_INO, "empty", b, "c"), EINVAL);
    EXPECT_EQ(exchange(b, "c", NTB_ROOT_INO, "empty"), EINVAL);
    EXPECT_EQ(exchange(NTB_ROOT_INO, "final", b, "missing"), ENOENT);
    EXPECT_EQ(exchange(NTB_ROOT_INO, "final", b, "c"), 0);
    EXPECT_EQ(volume.find("c", b), readme);
    EXPECT_EQ(exchange(b, "c", NTB_ROOT_INO, "final"), 0);
    EXPECT_EQ(volume.attributes(readme).link_count, 1u);
    EXPECT_EQ(volume.finish().cat("/final"), "text");
}

TEST(Namespace, AFileMayHaveSeveralNames) {
    BridgeVolume volume;
    const uint64_t file = volume.make("A long name.text");
    {
        const auto* const vol = static_cast<ntb_vol*>(volume);
        ntb::inode_guard inode;
        ntb::inode_guard root;
        ASSERT_EQ(inode.open(vol->volume, file), 0);
        ASSERT_EQ(root.open(vol->volume, NTB_ROOT_INO), 0);
        const std::string alias = "ALONGN~1.TXT";
        ASSERT_EQ(
            ntfs_set_ntfs_dos_name(inode.release(), root.release(), alias.data(), alias.size(), 0),
            0); // which closes both
    }
    EXPECT_EQ(volume.find("ALONGN~1.TXT"), file);
    EXPECT_EQ(volume.list().size(), 1u);
    EXPECT_EQ(ntb_link(volume, file, NTB_ROOT_INO, "second"), 0);
    uint32_t names = 0;
    EXPECT_EQ(ntb_count_names(volume, file, &names), 0);
    EXPECT_EQ(names, 2u);
    EXPECT_EQ(volume.attributes(file).link_count, 3u);
    const uint64_t directory = volume.makeDirectory("directory");
    EXPECT_EQ(ntb_link(volume, directory, NTB_ROOT_INO, "another"), EPERM);
    // Its record, opened twice, would be lost to the leak check.
    EXPECT_EQ(ntb_link(volume, directory, directory, "itself"), EPERM);
    EXPECT_EQ(volume.rename("A long name.text", "ALONGN~1.TXT"), 0);
    EXPECT_EQ(volume.list(), (std::map<std::string, uint32_t>{
                                 {"ALONGN~1.TXT", 1}, {"directory", 2}, {"second", 1}}));
    volume.finish();
}

// Nothing takes the changes of a request back where there is no page cache.
TEST(Namespace, ARenameThatFailsLeavesTheNamesWithoutAPageCacheToo) {
    BridgeVolume volume;
    EXPECT_EQ(volume.unmount(), 0);
    volume.memory() = DiskIo::fromFile(volume.sample().image(), 8192);
    ASSERT_EQ(volume.mount(), 0);
    EXPECT_EQ(ntb_link(volume, volume.make("one"), NTB_ROOT_INO, "same"), 0);
    const auto before = volume.list();
    EXPECT_EQ(volume.rename("one", "same"), EEXIST);
    EXPECT_EQ(volume.list(), before);

    const std::string content = patternText(20'000);
    const std::vector<uint8_t> whole = volume.memory().bytes;
    int undone = 0;
    for (uint64_t call = 1, failures = 1; failures > 0; ++call) {
        EXPECT_EQ(volume.unmount(), 0);
        volume.memory().bytes = whole;
        ASSERT_EQ(volume.mount(), 0);
        EXPECT_EQ(volume.write(volume.make("file"), content), 0);
        const uint64_t directory = volume.makeDirectory("directory");
        volume.memory().fail(call, call, EIO);
        const int32_t error = ntb_rename(volume, NTB_ROOT_INO, "file", directory, "moved");
        failures = volume.memory().failures();
        volume.memory().heal();
        const uint64_t from = volume.find("file");
        const uint64_t to = volume.find("moved", directory);
        undone += from != 0 && to == 0 ? 1 : 0;
        for (const uint64_t ino : {from, to}) {
            EXPECT_TRUE(ino == 0 || volume.read(ino) == content) << call;
        }
        EXPECT_TRUE(error != 0 ? from + to != 0 : from == 0 && to != 0) << call;
    }
    EXPECT_GT(undone, 1) << "the new name came, and went again";
}

TEST(Namespace, SymbolicLinks) {
    BridgeVolume volume;
    for (const std::string& target :
         {std::string("../some where"), std::string("/"), std::string("\u00fcml\u00e4ut"),
          repeated("t", 2043), repeated("\u20ac", 1365)}) {
        SCOPED_TRACE(target);
        uint64_t ino = 0;
        ASSERT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", target.c_str(), nullptr, &ino), 0);
        EXPECT_EQ(volume.readlink(ino), target);
        const ntb_attr attr = volume.attributes(ino);
        EXPECT_EQ(attr.type, uint32_t{NTB_TYPE_SYMLINK});
        const auto units = static_cast<size_t>(std::ranges::count_if(
            target, [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
        EXPECT_EQ(attr.size, units);
        EXPECT_EQ(volume.list().at("link"), uint32_t{NTB_TYPE_SYMLINK});
        EXPECT_EQ(volume.setStream(ino, "s", "v"), EPERM);
        EXPECT_NE(volume.stream(ino, "s").first, 0);
        EXPECT_NE(ntb_removexattr(volume, ino, "s"), 0);
        EXPECT_TRUE(volume.streams(ino).empty());
        EXPECT_EQ(volume.unlink("link"), 0);
    }
    uint64_t ino = 0;
    EXPECT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", "", nullptr, &ino), EINVAL);
    for (const std::string& target : {repeated("t", 2044), repeated("\u20ac", 1366)}) {
        EXPECT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", target.c_str(), nullptr, &ino),
                  ENAMETOOLONG);
    }
    char* target = nullptr;
    EXPECT_EQ(ntb_readlink(volume, NTB_ROOT_INO, &target), EINVAL);
    EXPECT_EQ(ntb_readlink(volume, volume.make("file"), &target), EINVAL);
    EXPECT_EQ(target, nullptr);
    volume.finish();
}

TEST(Namespace, OnlyDataOfASensibleSizeIsALink) {
    BridgeVolume volume;
    uint64_t ino = 0;
    ASSERT_EQ(ntb_symlink(volume, NTB_ROOT_INO, "link", "ab", nullptr, &ino), 0);
    for (const uint64_t size : {8, 9, 11, 12, 4095, 4096}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(volume.write(ino, std::string(4096, 'x'), 12), 0);
        EXPECT_EQ(ntb_truncate(volume, ino, size), 0);
        const bool isLink = size > 8 && size < 4096;
        const ntb_attr attr = volume.attributes(ino);
        EXPECT_EQ(attr.type, isLink ? uint32_t{NTB_TYPE_SYMLINK} : uint32_t{NTB_TYPE_FILE});
        EXPECT_EQ(attr.size, isLink ? (size - 8) / 2 : size);
        char* target = nullptr;
        EXPECT_EQ(ntb_readlink(volume, ino, &target), isLink ? 0 : EINVAL);
        free(target);
    }
}

// A removed item's record goes to the next file. Whoever still has the old reference must reach
// neither that file nor its names.
TEST(Namespace, AReferenceOutlivesItsRecordAsStale) {
    BridgeVolume volume;
    const auto remember = [&](uint64_t ino) {
        return ntb_reference(ino, volume.attributes(ino).seq);
    };
    const uint64_t directory = volume.makeDirectory("directory");
    const uint64_t file = volume.make("file");
    const uint64_t kept = volume.make("kept");
    const uint64_t oldDirectory = remember(directory);
    const uint64_t oldFile = remember(file);
    EXPECT_EQ(volume.write(oldFile, "old"), 0);
    EXPECT_EQ(volume.read(oldFile), "old");
    EXPECT_EQ(volume.unlink("file"), 0);
    EXPECT_EQ(ntb_rename(volume, NTB_ROOT_INO, "kept", oldDirectory, "kept"), 0);
    EXPECT_EQ(ntb_unlink(volume, oldDirectory, "kept"), 0);
    EXPECT_EQ(volume.unlink("directory"), 0);

    const auto expectStale = [&] {
        uint64_t number = 0;
        uint32_t count = 0;
        char byte = 'x';
        char* target = nullptr;
        void* value = nullptr;
        ntb_attr attr = {};
        const ntb_time time = {};
        EXPECT_EQ(ntb_getattr(volume, oldFile, &attr), ESTALE);
        EXPECT_EQ(ntb_parent(volume, oldFile, &number), ESTALE);
        EXPECT_EQ(ntb_read(volume, oldFile, 0, &byte, 1, &number), ESTALE);
        EXPECT_EQ(ntb_write(volume, oldFile, 0, &byte, 1, &number), ESTALE);
        EXPECT_EQ(ntb_truncate(volume, oldFile, 0), ESTALE);
        EXPECT_EQ(ntb_flush(volume, oldFile), ESTALE);
        EXPECT_EQ(ntb_readlink(volume, oldFile, &target), ESTALE);
        EXPECT_EQ(ntb_link(volume, oldFile, NTB_ROOT_INO, "again"), ESTALE);
        EXPECT_EQ(ntb_count_names(volume, oldFile, &count), ESTALE);
        EXPECT_EQ(ntb_set_times(volume, oldFile, &time, &time, &time, &time), ESTALE);
        EXPECT_EQ(ntb_set_hidden(volume, oldFile, 1), ESTALE);
        EXPECT_EQ(ntb_listxattr(volume, oldFile, nullptr, nullptr), ESTALE);
        EXPECT_EQ(ntb_getxattr(volume, oldFile, "x", &value, &number), ESTALE);
        EXPECT_EQ(ntb_setxattr(volume, oldFile, "x", &byte, 1, NTB_XATTR_ANY), ESTALE);
        EXPECT_EQ(ntb_removexattr(volume, oldFile, "x"), ESTALE);
        EXPECT_EQ(ntb_lookup(volume, oldDirectory, "x", &number), ESTALE);
        EXPECT_EQ(ntb_readdir(volume, oldDirectory, nullptr, nullptr), ESTALE);
        EXPECT_EQ(ntb_create(volume, oldDirectory, "x", NTB_TYPE_FILE, &number), ESTALE);
        EXPECT_EQ(ntb_symlink(volume, oldDirectory, "x", "y", nullptr, &number), ESTALE);
        EXPECT_EQ(ntb_unlink(volume, oldDirectory, "x"), ESTALE);
        EXPECT_EQ(ntb_rename(volume, oldDirectory, "x", NTB_ROOT_INO, "y"), ESTALE);
    };
    expectStale();
    uint32_t heirs = 0;
    for (int i = 0; i < 64 && heirs < 2; ++i) {
        const uint64_t ino = volume.makeDirectory("reused " + std::to_string(i));
        heirs += ino == file || ino == directory ? 1 : 0;
    }
    EXPECT_EQ(heirs, 2u) << "the records were not used again";
    EXPECT_NE(volume.attributes(file).seq, static_cast<uint16_t>(oldFile >> 48));
    expectStale();
    EXPECT_EQ(volume.list(oldFile & ~(UINT64_C(0xffff) << 48)).size(), 0u);
    EXPECT_NE(kept, file);
    volume.finish();
}

TEST(Namespace, ListingStopsWhenAskedTo) {
    BridgeVolume volume;
    volume.make("a");
    volume.make("b");
    int calls = 0;
    const auto stopAtOnce = [](void* context, const char*, uint64_t, uint16_t, uint32_t) {
        *static_cast<int*>(context) += 1;
        return int32_t{7};
    };
    EXPECT_EQ(ntb_readdir(volume, NTB_ROOT_INO, stopAtOnce, &calls), 0);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace tavelin::test
