// Listings by the order of names, in pieces and from damaged indexes.
#include "support/bridge_volume.hpp"

#include <algorithm>
#include <random>
#include <set>

namespace tavelin::test {
namespace {

using Names = std::vector<std::string>;

struct Piece {
    Names names;
    size_t most;
};

int32_t collect(void* context, const char* name, uint64_t, uint16_t, uint32_t) {
    auto& piece = *static_cast<Piece*>(context);
    piece.names.emplace_back(name);
    return piece.names.size() >= piece.most ? 1 : 0;
}

// The next names behind a place, at most so many.
int32_t listPiece(ntb_vol* volume, uint64_t directory, ntb_position& position, size_t most,
                  Names& names) {
    Piece piece{{}, most};
    const int32_t error = ntb_readdir_sorted(volume, directory, &position, collect, &piece);
    names = std::move(piece.names);
    return error;
}

std::string nameOf(unsigned number) {
    // The order of names goes by upper case: what differs in it only comes in the end.
    return (number % 2 == 0 ? "name " : "NAME ") + std::to_string(10'000 + number) +
           (number % 5 == 0 ? " with a long tail, so that the tree has three levels" : "");
}

TEST(SortedListing, GoesOnBehindAnyNameWhateverComesAndGoes) {
    BridgeVolume volume({.bytes = 64 << 20});
    const uint64_t directory = volume.makeDirectory("folder");
    std::vector<unsigned> numbers(4000);
    std::iota(numbers.begin(), numbers.end(), 0u);
    std::mt19937 random(1);
    std::shuffle(numbers.begin(), numbers.end(), random);
    for (const unsigned number : numbers) {
        volume.make(nameOf(number), directory);
    }
    std::sort(numbers.begin(), numbers.end());
    const auto existing = volume.list(directory);

    ntb_position position = {};
    Names seen;
    for (Names piece;;) {
        ASSERT_EQ(listPiece(volume, directory, position, 1 + random() % 300, piece), 0);
        if (piece.empty()) {
            break;
        }
        seen.insert(seen.end(), piece.begin(), piece.end());
        // The one to go on behind goes, and others come on both sides of it.
        ASSERT_EQ(ntb_unlink(volume, directory, piece.back().c_str()), 0);
        volume.make("a first one " + std::to_string(seen.size()), directory);
    }
    Names expected;
    for (const unsigned number : numbers) {
        expected.push_back(nameOf(number));
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(existing.size(), expected.size());

    ntb_position start = {};
    Names none;
    EXPECT_EQ(listPiece(volume, volume.find(expected[1], directory), start, 9, none), ENOTDIR);
    EXPECT_EQ(listPiece(volume, volume.makeDirectory("empty"), start, 9, none), 0);
    EXPECT_EQ(none, Names());
}

// Whatever the bytes of an index say, a listing ends, and tells no name twice.
TEST(SortedListing, OfADamagedIndexEnds) {
    BridgeVolume volume({.bytes = 8 << 20});
    volume.sample().leaveUnchecked();
    const uint64_t directory = volume.makeDirectory("folder");
    for (unsigned number = 0; number < 300; ++number) {
        volume.make(nameOf(number), directory);
    }
    ASSERT_EQ(volume.unmount(), 0);
    const std::vector<uint8_t> sound = volume.memory().bytes;
    std::vector<size_t> blocks;
    for (size_t at = 0; at < sound.size(); at += 4096) {
        if (std::equal(sound.begin() + static_cast<std::ptrdiff_t>(at),
                       sound.begin() + static_cast<std::ptrdiff_t>(at) + 4, "INDX")) {
            blocks.push_back(at);
        }
    }
    ASSERT_GT(blocks.size(), 8u);

    std::mt19937 random(2);
    unsigned failed = 0;
    for (int round = 0; round < 200; ++round) {
        volume.memory().bytes = sound;
        for (int i = 0; i < 3; ++i) {
            volume.memory().bytes[blocks[random() % blocks.size()] + 24 + random() % 400] =
                static_cast<uint8_t>(random());
        }
        if (volume.mount(true) != 0) {
            continue; // the root directory's own
        }
        ntb_position position = {};
        std::set<std::string> names;
        int32_t error = 0;
        for (Names piece; error == 0;) {
            error = listPiece(volume, directory, position, 7, piece);
            if (error == 0 && piece.empty()) {
                break;
            }
            for (const std::string& name : piece) {
                EXPECT_TRUE(names.insert(name).second) << "again: " << name;
            }
            ASSERT_LT(names.size(), 1000u);
        }
        failed += error != 0 ? 1 : 0;
        EXPECT_EQ(volume.unmount(), 0);
    }
    EXPECT_GT(failed, 20u) << "the damage is never seen";
}

} // namespace
} // namespace tavelin::test
