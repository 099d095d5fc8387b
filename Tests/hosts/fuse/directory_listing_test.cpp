#include "hosts/fuse/tree/directory_listing.hpp"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>

namespace tavelin::fusehost {
namespace {

using Names = std::multimap<uint64_t, std::string>; // by inode

DirectoryListing listingOf(const Names& names) {
    DirectoryListing listing;
    for (const auto& [ino, name] : names) {
        listing.add(name, ino, S_IFREG);
    }
    listing.seal();
    return listing;
}

// Reads one page of at most `most` entries beyond `position`, which moves on.
std::vector<std::string> readPage(const DirectoryListing& listing, uint64_t& position,
                                  size_t most) {
    std::vector<std::string> page;
    listing.readAfter(position, [&](const DirectoryListing::Entry& entry) {
        if (page.size() == most) {
            return false;
        }
        page.emplace_back(entry.name);
        position = entry.position;
        return true;
    });
    return page;
}

// Whatever changes between the pages of a stream, and even when every page comes from a fresh
// listing: what was there throughout is delivered exactly once.
TEST(DirectoryListing, StreamsNeitherSkipNorRepeat) {
    std::mt19937 random(5);
    for (int round = 0; round < 50; ++round) {
        Names names;
        for (uint64_t i = 0; i < 300; ++i) {
            // Several names of one file in the same directory, now and then.
            names.emplace(64 + random() % 1000, "name" + std::to_string(i));
        }
        std::map<std::string, int> seen;
        std::set<std::string> lasting;
        for (const auto& [ino, name] : names) {
            lasting.insert(name);
        }
        DirectoryListing listing = listingOf(names);
        uint64_t position = 2;
        for (std::vector<std::string> page; !(page = readPage(listing, position, 7)).empty();) {
            for (const std::string& name : page) {
                ++seen[name];
            }
            const auto removed = std::next(names.begin(), static_cast<int>(random() % 200));
            lasting.erase(removed->second);
            listing.remove(removed->first, removed->second);
            names.erase(removed);
            names.emplace(64 + random() % 1000, "new" + std::to_string(random()));
            if (random() % 3 == 0) {
                listing = listingOf(names);
            }
        }
        for (const std::string& name : lasting) {
            EXPECT_EQ(seen[name], 1) << name << " in round " << round;
        }
        for (const auto& [name, times] : seen) {
            EXPECT_EQ(times, 1) << name << " in round " << round;
        }
    }
}

// The most names a file can have, all in one directory, read one at a time.
TEST(DirectoryListing, ManyNamesOfOneFileHavePositionsOfTheirOwn) {
    Names names;
    for (int i = 0; i < 1024; ++i) {
        names.emplace(70, "link" + std::to_string(i));
    }
    names.emplace(71, "next");
    const DirectoryListing listing = listingOf(names);
    std::set<std::string> seen;
    uint64_t position = 0;
    for (std::vector<std::string> page; !(page = readPage(listing, position, 1)).empty();) {
        EXPECT_TRUE(seen.insert(page[0]).second) << page[0];
    }
    EXPECT_EQ(seen.size(), names.size());
    EXPECT_GT(static_cast<int64_t>(DirectoryListing::position(0xffffffffffff, "x")), 0);
}

} // namespace
} // namespace tavelin::fusehost
