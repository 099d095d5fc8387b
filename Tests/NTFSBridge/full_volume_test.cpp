// Operations that fail for want of room, in the cache or on the device leave the volume as it was.
#include "NTFSBridge/namespace.hpp"
#include "NTFSBridge/operation.hpp"
#include "support/bridge_volume.hpp"

#include <gtest/gtest.h>

#include <random>

namespace tavelin::test {
namespace {

// Random changes of names and streams, and what they should have led to.
class Changes {
    template<typename Map>
    auto pick(Map& map) {
        return std::next(map.begin(), static_cast<std::ptrdiff_t>(random_() % map.size()));
    }

  public:
    Changes(BridgeVolume& volume, uint32_t seed) : volume_(volume), random_(seed) {
        directories_[NTB_ROOT_INO];
    }

    // Makes one change. What fails must have failed for want of room, and changed nothing.
    void step() {
        const uint64_t parent = pick(directories_)->first;
        const std::string name = std::to_string(++count_) + std::string(random_() % 60, 'n');
        const auto what = random_() % 10;
        if (what < 4) {
            make(parent, name, what < 2 ? NTB_TYPE_DIRECTORY : NTB_TYPE_FILE);
        } else if (directories_[parent].empty()) {
            return;
        } else if (what < 6) {
            move(parent, name);
        } else if (what < 9) {
            setStream(pick(directories_[parent])->second, name);
        } else {
            remove(parent);
        }
    }

    void expectAllListed() {
        for (const auto& [directory, entries] : directories_) {
            std::map<std::string, uint32_t> names = volume_.list(directory);
            names.erase("filler");
            EXPECT_EQ(names.size(), entries.size()) << "directory " << directory;
            for (const auto& [name, ino] : entries) {
                EXPECT_EQ(volume_.find(name, directory), ino) << name;
            }
        }
    }

    int failures() const { return failures_; }

  private:
    bool succeeds(int32_t error, const char* what) {
        EXPECT_TRUE(error == 0 || error == ENOSPC) << what << " answered " << error;
        failures_ += error != 0 ? 1 : 0;
        return error == 0;
    }

    void make(uint64_t parent, const std::string& name, uint32_t kind) {
        uint64_t ino = 0;
        if (succeeds(ntb_create(volume_, parent, name.c_str(), kind, &ino), "ntb_create")) {
            directories_[parent][name] = ino;
            if (kind == NTB_TYPE_DIRECTORY) {
                directories_[ino];
            }
        }
    }

    void move(uint64_t parent, const std::string& name) {
        const auto [old, ino] = *pick(directories_[parent]);
        const uint64_t target = directories_.contains(ino) ? parent : pick(directories_)->first;
        if (succeeds(ntb_rename(volume_, parent, old.c_str(), target, name.c_str()),
                     "ntb_rename")) {
            directories_[parent].erase(old);
            directories_[target][name] = ino;
        }
    }

    void setStream(uint64_t ino, const std::string& name) {
        succeeds(volume_.setStream(ino, name, patternText(random_() % 300)), "ntb_setxattr");
    }

    void remove(uint64_t parent) {
        const auto [name, ino] = *pick(directories_[parent]);
        const auto directory = directories_.find(ino);
        if (directory != directories_.end() && !directory->second.empty()) {
            return;
        }
        if (succeeds(ntb_unlink(volume_, parent, name.c_str()), "ntb_unlink")) {
            directories_[parent].erase(name);
            directories_.erase(ino);
        }
    }

    BridgeVolume& volume_;
    std::mt19937 random_;
    std::map<uint64_t, std::map<std::string, uint64_t>> directories_; // name to inode, by inode
    uint64_t count_ = 0;
    int failures_ = 0;
};

// Fills the volume but for about so many bytes.
void fill(BridgeVolume& volume, uint64_t left) {
    const uint64_t filler = volume.make("filler");
    const ntb_statfs space = volume.space();
    const uint64_t size = space.freeClusters * space.clusterSize - left;
    const std::string piece(64 << 10, 'f');
    for (uint64_t at = 0; at < size; at += piece.size()) {
        ASSERT_EQ(volume.write(filler, piece, at), 0);
    }
}

TEST(FullVolume, KeepsNoTraceOfWhatFailed) {
    for (const uint32_t seed : {1u, 2u, 3u}) {
        BridgeVolume volume;
        fill(volume, 300 << 10);
        Changes changes(volume, seed);
        for (int i = 0; i < 3000; ++i) {
            changes.step();
            ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed << ", step " << i;
        }
        EXPECT_GT(changes.failures(), 100);
        changes.expectAllListed();
        volume.finish();
        ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed;
    }
}

TEST(FullVolume, TakesBackAWriteThatDoesNotFit) {
    BridgeVolume volume;
    fill(volume, 300 << 10);
    ASSERT_EQ(ntb_sync(volume), 0);
    const uint64_t file = volume.make("file");
    ASSERT_EQ(volume.write(file, "before"), 0);
    const ntb_statfs before = volume.space();
    const std::string large = patternText(400 << 10);
    uint64_t done = 1;
    EXPECT_EQ(ntb_write(volume, file, 0, large.data(), large.size(), &done), ENOSPC);
    EXPECT_EQ(done, 0u);
    volume.memory().takeLog();
    EXPECT_EQ(ntb_sync(volume), 0);
    const auto calls = volume.memory().takeLog();
    EXPECT_EQ(calls.empty() ? DiskCall::read : calls.back().call, DiskCall::flush);
    EXPECT_EQ(volume.read(file), "before");
    EXPECT_EQ(volume.attributes(file).size, 6u);
    const ntb_statfs after = volume.space();
    EXPECT_EQ(after.freeClusters, before.freeClusters);
    EXPECT_EQ(after.freeFiles, before.freeFiles);
    const uint64_t available = after.freeClusters * after.clusterSize;
    EXPECT_EQ(volume.setStream(file, "all but the reserve", patternText(available - (32 << 10))),
              ENOSPC);
    EXPECT_TRUE(volume.streams(file).empty());
    EXPECT_EQ(volume.write(file, "after!"), 0);
    EXPECT_EQ(volume.read(file), "after!");

    auto* const vol = static_cast<ntb_vol*>(volume);
    ASSERT_EQ(volume.unlink("filler"), 0);
    ASSERT_EQ(ntb::begin_operation(vol), 0);
    uint64_t whole = 0;
    EXPECT_EQ(ntb::create_entry(vol, NTB_ROOT_INO, "whole", {NTB_TYPE_FILE, 0, {}}, &whole), 0);
    vol->context->undo.give_up();
    bool isTakenBack = true;
    EXPECT_EQ(ntb::end_operation(vol, EIO, &isTakenBack), EIO);
    EXPECT_FALSE(isTakenBack) << "what cannot be taken back whole";
    EXPECT_EQ(volume.find("whole"), whole);
    volume.finish();
}

} // namespace
} // namespace tavelin::test
