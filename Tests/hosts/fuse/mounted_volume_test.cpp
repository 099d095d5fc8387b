// The mounted volume without a kernel: what becomes of nodes and removed files when the kernel lets
// go of them late, when the volume is full and when others have used this host's directory.
#include "hosting/module_host.hpp"
#include "hosts/fuse/tree/mounted_volume.hpp"
#include "platform/error_numbers.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

namespace tavelin::test {
namespace {

using fskit::FSItemType;
using fusehost::Entry;
using fusehost::MountedVolume;
using fusehost::Node;

class MountedVolumeTest : public testing::Test {
  protected:
    void SetUp() override { open(); }
    void TearDown() override { close(); }

    void open() {
        host_ = ModuleHost::openImage(volume_.image());
        mounted_ = std::make_unique<MountedVolume>(host_->volume());
        mounted_->orphanFiles().cleanUp();
    }
    void close() {
        if (host_) {
            EXPECT_TRUE(mounted_->finish());
            EXPECT_TRUE(host_->close());
            mounted_.reset();
            host_.reset();
            EXPECT_NO_THROW(volume_.check());
        }
    }

    Node& root() { return mounted_->node(1); }
    Node& make(const std::string& name, const std::string& content = {},
               FSItemType type = FSItemType::file) {
        Node& node = *mounted_->create(root(), name, type).get().node;
        if (!content.empty()) {
            EXPECT_TRUE(mounted_->volume().write(node.item, 0, bytes(content)));
        }
        return node;
    }
    // With one more count, as for every answer to the kernel; null when there is no such name.
    Node* find(const std::string& name) {
        std::optional<Entry> found = mounted_->lookup(root(), name).get();
        return found ? found->node : nullptr;
    }
    void forget(Node& node) { mounted_->forget(node.number, node.lookups); }
    std::string read(const Node& node) {
        std::string text(100, 0);
        const Outcome<size_t> got =
            mounted_->volume().read(node.item, 0, std::as_writable_bytes(std::span<char>(text)));
        return got ? text.substr(0, *got) : "error " + got.error().localizedDescription();
    }
    static VolumeClient::Bytes bytes(const std::string& text) {
        return std::as_bytes(std::span<const char>(text));
    }

    // Takes all clusters, and with `records` all room for new files too.
    void fill(bool records) {
        const std::string block(64 << 10, 'b');
        Node& large = make("large");
        uint64_t size = 0;
        for (size_t piece = block.size(); piece != 0; piece /= 2) {
            while (mounted_->volume().write(large.item, size, bytes(block.substr(0, piece)))) {
                size += piece;
            }
        }
        int i = 0;
        while (records && mounted_->create(root(), "f" + std::to_string(i), FSItemType::file)) {
            ++i;
        }
    }

    static void expectError(const Outcome<void>& outcome, int32_t code) {
        ASSERT_FALSE(outcome);
        EXPECT_EQ(outcome.error().code(), code);
    }

    SampleVolume volume_;
    std::unique_ptr<ModuleHost> host_;
    std::unique_ptr<MountedVolume> mounted_;
};

TEST_F(MountedVolumeTest, AnOldNodeLetsGoOfItsOwnRecordOnly) {
    Node& directory = make("folder", {}, FSItemType::directory);
    ASSERT_TRUE(mounted_->removeDirectory(root(), "folder"));
    // Files until one has the directory's record.
    Node* file = &make("file0", "content");
    for (int i = 1; i < 500 && file->id != directory.id; ++i) {
        file = &make("file" + std::to_string(i), "content");
    }
    ASSERT_EQ(file->id, directory.id);
    // Whoever has the directory open still, or a handle of it, reaches the file by no request.
    fskit::FSItemSetAttributesRequest times;
    times.setModifyTime({.tv_sec = 1, .tv_nsec = 0});
    VolumeClient& volume = mounted_->volume();
    EXPECT_EQ(mounted_->setAttributes(directory, times).error().code(), kESTALE);
    expectError(volume.setXattr(directory.item, "x", {}), kESTALE);
    expectError(Outcome<void>::of(volume.getXattr(directory.item, "x")), kESTALE);
    expectError(Outcome<void>::of(volume.listXattrs(directory.item)), kESTALE);
    expectError(volume.removeXattr(directory.item, "x"), kESTALE);
    expectError(Outcome<void>::of(mounted_->lookupHandle(directory.number, false)), kESTALE);
    for (int i = 0; i < 500; ++i) {
        (void)mounted_->removeFile(root(), "file" + std::to_string(i));
    }
    forget(directory);
    EXPECT_EQ(read(*file), "content") << "it is open still";
    EXPECT_TRUE(mounted_->orphanFiles().contains(file->id));
    const uint64_t ino = file->id;
    forget(*file);
    EXPECT_FALSE(mounted_->orphanFiles().contains(ino));
}

TEST_F(MountedVolumeTest, ARenameThatFailsLeavesItsTarget) {
    // On a full volume the file cannot be given the long name: it would push its content out of its
    // record.
    const std::string longName(190, 'n');
    make(longName, "target");
    make("source", std::string(550, 's'));
    fill(false);
    expectError(mounted_->rename(root(), "source", root(), longName, false), kEEXIST);
    expectError(mounted_->rename(root(), "source", root(), longName, true), kENOSPC);
    ASSERT_NE(find(longName), nullptr);
    EXPECT_EQ(read(*find(longName)), "target");
    EXPECT_NE(find("source"), nullptr);
    forget(*find(longName));
    EXPECT_NE(find(longName), nullptr) << "also once nobody has it open";
}

TEST_F(MountedVolumeTest, ANameIsFreeWhoeverMovesItsFileAside) {
    const std::jthread persisting([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            EXPECT_TRUE(mounted_->orphanFiles().persistOrphans());
        }
    });
    Node* last = nullptr;
    for (int i = 0; i < 2000; ++i) {
        Node& file = make("file");
        if (last != nullptr) {
            forget(*last);
        }
        ASSERT_TRUE(mounted_->removeFile(root(), "file"));
        last = &file;
    }
}

TEST_F(MountedVolumeTest, AFullVolumeSynchronisesWithRemovedFilesOpen) {
    Node& file = make("file", "content");
    fill(true);
    ASSERT_TRUE(mounted_->removeFile(root(), "file"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(mounted_->synchronize())
            << "there is no room to move the file aside, and no need";
    }
    mounted_->orphanFiles().persistExpired();
    EXPECT_EQ(read(file), "content");
    EXPECT_EQ(find("file"), nullptr);
    forget(file);
    EXPECT_TRUE(mounted_->orphanFiles().isEmpty());
}

TEST_F(MountedVolumeTest, ADirectoryGoesAlthoughItsRemovedFilesAreOpen) {
    Node& folder = make("folder", {}, FSItemType::directory);
    Node& file = *mounted_->create(folder, "file", FSItemType::file).get().node;
    ASSERT_TRUE(mounted_->removeFile(folder, "file"));
    fskit::FSItemSetAttributesRequest times;
    times.setModifyTime({.tv_sec = 1, .tv_nsec = 0});
    EXPECT_TRUE(mounted_->setAttributes(folder, times));
    EXPECT_TRUE(mounted_->synchronize());
    EXPECT_EQ(mounted_->attributes(folder)->modifyTime().tv_sec, 1) << "what is set holds";
    Node& second = *mounted_->create(folder, "second", FSItemType::file).get().node;
    ASSERT_TRUE(mounted_->removeFile(folder, "second"));
    EXPECT_TRUE(mounted_->removeDirectory(root(), "folder"));
    EXPECT_EQ(read(file), read(second));
}

TEST_F(MountedVolumeTest, AHandleOpensNeitherRemovedFilesNorWhereTheyAre) {
    const Node& kept = make("kept");
    Node& file = make("file");
    ASSERT_TRUE(mounted_->removeFile(root(), "file"));
    expectError(Outcome<void>::of(mounted_->createHardLink(file, root(), "again")), kENOENT);
    ASSERT_TRUE(mounted_->synchronize()); // which moves it aside
    for (uint64_t record = 16; record < 100; ++record) {
        for (const bool above : {false, true}) {
            const auto found = mounted_->lookupHandle(itemReference(record, 1), above);
            ASSERT_EQ(bool{found}, record == kept.id) << record << above;
            if (found) {
                EXPECT_EQ((*found)->node, above ? &root() : &kept);
            }
        }
    }
    forget(file);
}

TEST_F(MountedVolumeTest, AListingGoesWithTheLastStream) {
    const Node& file = make("file");
    const auto listed = [&] {
        const MutexLock held(root().directory->lock);
        return root().directory->listing != nullptr;
    };
    // The names from a position on, but for the last of `most`, which does not fit.
    const auto read = [&](uint64_t position, size_t most) {
        std::vector<std::string> names;
        EXPECT_TRUE(mounted_->readDirectory(root(), position, true, [&](const auto& name, auto&) {
            names.emplace_back(name.name);
            return names.size() < most;
        }));
        return names;
    };
    for (int i = 0; i < 2; ++i) {
        mounted_->openDirectory(root());
    }
    EXPECT_EQ(read(0, 3), (std::vector<std::string>{".", "..", "file"}));
    EXPECT_EQ(file.lookups, 1u) << "of an entry that did not fit the kernel knows nothing";
    mounted_->closeDirectory(root());
    EXPECT_TRUE(listed()) << "the other stream may go on";
    make("later");
    EXPECT_EQ(read(2, 2), std::vector<std::string>{"file"}) << "a stream is not made endless";
    EXPECT_TRUE(mounted_->removeFile(root(), "later"));
    make("latest");
    EXPECT_EQ(read(0, 3), (std::vector<std::string>{".", "..", "file"}));
    EXPECT_EQ(read(0, 9).size(), 4u) << "one that begins again has everything";
    EXPECT_TRUE(mounted_->removeFile(root(), "latest"));
    EXPECT_EQ(read(2, 9), std::vector<std::string>{"file"}) << "and what went is gone at once";
    EXPECT_TRUE(listed());
    mounted_->closeDirectory(root());
    EXPECT_FALSE(listed());
}

TEST_F(MountedVolumeTest, TrimsOnceAtATime) {
    const NTFSTrimRange all{.offset = 0, .length = UINT64_MAX, .minimum = 0};
    const auto always = [] { return true; };
    int asked = 0;
    EXPECT_TRUE(mounted_->trim(all, [&] {
        const Outcome<uint64_t> second = mounted_->trim(all, always);
        EXPECT_TRUE(!second && second.error().code() == kEBUSY);
        ++asked;
        return true;
    }));
    EXPECT_GT(asked, 0);
    EXPECT_TRUE(mounted_->trim(all, always));
}

// What a volume may have under the name of the orphan directory, and what is left of it.
TEST_F(MountedVolumeTest, OnlyWhatThisHostMadeIsHiddenOrRemoved) {
    const std::string name(OrphanDirectory::kName);
    const auto directory = [&](VolumeClient& volume, bool marked) {
        ItemRef made = volume.create(volume.root(), name, FSItemType::directory).get().item;
        if (marked) {
            volume.setXattr(made, OrphanDirectory::kMarker, {}).get();
        }
        (void)volume.create(made, "photo.jpg", FSItemType::file).get();
        const ItemRef left = volume.create(made, "left", FSItemType::file).get().item;
        const std::string orphan = OrphanDirectory::nameOf(volume.attributes(left)->fileID());
        volume.rename(left, made, "left", made, orphan, ItemRef()).get();
    };
    const struct {
        const char* what;
        std::function<void(VolumeClient&)> prepare;
        size_t left; // entries in it, after a mount
    } kRows[] = {
        {"a user's file",
         [&](VolumeClient& volume) {
             (void)volume.create(volume.root(), name, FSItemType::file).get();
         },
         0},
        {"a user's directory", [&](VolumeClient& volume) { directory(volume, false); }, 2},
        {"what a crash left, and a user's file in it",
         [&](VolumeClient& volume) { directory(volume, true); }, 1},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.what);
        row.prepare(host_->volume());
        close();
        open();
        EXPECT_NE(find(name), nullptr) << "it is hidden";
        make("old", "old");
        make("new", "new");
        ASSERT_TRUE(mounted_->rename(root(), "new", root(), "old", true));
        EXPECT_EQ(read(*find("old")), "new");
        ASSERT_TRUE(mounted_->removeFile(root(), "old"));
        EXPECT_TRUE(mounted_->synchronize());
        EXPECT_EQ(find(name + "-1"), nullptr) << "the orphans are shown";
        close();
        EXPECT_EQ(volume_.list(), std::vector<std::string>{name});
        open();
        VolumeClient& volume = host_->volume();
        const Found found = volume.lookup(volume.root(), name).get();
        if (found.attributes.type() == FSItemType::directory) {
            const auto entries = volume.list(found.item, false).get();
            EXPECT_EQ(entries.size(), row.left);
            for (const DirectoryEntry& entry : entries) {
                const ItemRef item = volume.lookup(found.item, entry.name).get().item;
                volume.remove(item, found.item, entry.name).get();
            }
        }
        volume.remove(found.item, volume.root(), name).get();
    }
}

TEST(ShortAliases, MayHaveLettersOfSeveralBytes) {
    EXPECT_TRUE(fusehost::mayBeDosName("ФОТОГР~1.JPG"));
    EXPECT_FALSE(fusehost::mayBeDosName("ФОТОГРАФ~1.JPG"));
}

} // namespace
} // namespace tavelin::test
