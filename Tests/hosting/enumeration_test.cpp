// Directories read in pages, as a kernel reads them: whatever the page size, the pages make up the
// listing.

#include "own_group.hpp"

#include "hosting/module_host.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <set>

namespace tavelin::test {

namespace {

using Type = fskit::FSItemType;

constexpr std::size_t kUnlimited = std::size_t{1} << 40;

std::string entryName(std::size_t number) {
    return "entry " + std::to_string(number) + std::string(number % 60, '.') + "x";
}

// One volume for all tests, with a directory of each size, named after it.
class EnumerationTest : public ::testing::TestWithParam<std::size_t> {
  protected:
    static void SetUpTestSuite() {
        sample_ = std::make_unique<SampleVolume>(VolumeGeometry{.bytes = 256ull << 20});
        host_ = ModuleHost::openImage(sample_->image());
    }
    static void TearDownTestSuite() {
        host_.reset();
        sample_.reset();
    }

    static VolumeClient& volume() { return host_->volume(); }

    // The directory with `count` entries, every third of them a directory; made when first used.
    static ItemRef directoryOf(std::size_t count) {
        const std::string name = std::to_string(count);
        if (auto found = volume().lookup(volume().root(), name)) {
            return std::move(found->item);
        }
        ItemRef made = volume().create(volume().root(), name, Type::directory).get().item;
        for (std::size_t i = 0; i < count; ++i) {
            volume().create(made, entryName(i), i % 3 == 0 ? Type::directory : Type::file).get();
        }
        return made;
    }

    struct Page {
        std::vector<DirectoryEntry> entries;
        fskit::FSDirectoryVerifier verifier = 0;
    };
    static Page page(const ItemRef& directory, fskit::FSDirectoryCookie cookie,
                     fskit::FSDirectoryVerifier verifier, bool attributes,
                     std::size_t most = kUnlimited, std::size_t bytes = kUnlimited) {
        EntryPacker packer(bytes, most);
        const auto next = volume().enumerate(directory, cookie, verifier, attributes, packer).get();
        return {packer.take(), next};
    }

    // All pages of at most `most` entries and `bytes` bytes.
    static std::vector<DirectoryEntry> readAll(const ItemRef& directory, bool attributes,
                                               std::size_t most, std::size_t bytes) {
        std::vector<DirectoryEntry> all;
        Page next = page(directory, 0, 0, attributes, most, bytes);
        while (!next.entries.empty()) {
            all.insert(all.end(), next.entries.begin(), next.entries.end());
            next = page(directory, all.back().nextCookie, next.verifier, attributes, most, bytes);
        }
        return all;
    }

    static std::vector<std::string> names(const std::vector<DirectoryEntry>& entries) {
        std::vector<std::string> names;
        for (const DirectoryEntry& entry : entries) {
            names.push_back(entry.name);
        }
        return names;
    }

  private:
    static inline std::unique_ptr<SampleVolume> sample_;
    static inline std::unique_ptr<ModuleHost> host_;
};

TEST_P(EnumerationTest, PagesOfAnySizeMakeUpTheListing) {
    const ItemRef directory = directoryOf(GetParam());
    std::set<std::string> expected;
    for (std::size_t i = 0; i < GetParam(); ++i) {
        expected.insert(entryName(i));
    }
    for (const bool attributes : {false, true}) {
        const std::vector<DirectoryEntry> whole = page(directory, 0, 0, attributes).entries;
        const std::size_t dots = attributes ? 0 : 2;
        ASSERT_EQ(whole.size(), expected.size() + dots);
        std::set<std::string> seen;
        for (std::size_t i = 0; i < whole.size(); ++i) {
            const DirectoryEntry& entry = whole[i];
            ASSERT_EQ(entry.nextCookie, i + 1);
            ASSERT_EQ(entry.attributes.has_value(), attributes);
            if (attributes) {
                ASSERT_EQ(entry.attributes->fileID(), entry.itemID);
                ASSERT_EQ(entry.attributes->type(), entry.type);
            }
            if (i < dots) {
                ASSERT_EQ(entry.name, i == 0 ? "." : "..");
            } else {
                ASSERT_TRUE(expected.contains(entry.name)) << entry.name;
                ASSERT_TRUE(seen.insert(entry.name).second) << entry.name;
            }
        }
        for (const std::size_t most : {1, 2, 3}) {
            EXPECT_EQ(names(readAll(directory, attributes, most, kUnlimited)), names(whole))
                << most;
        }
        EXPECT_EQ(names(readAll(directory, attributes, kUnlimited, 4096)), names(whole));
    }
}

INSTANTIATE_TEST_SUITE_P(Entries, EnumerationTest, ::testing::Values(0, 1, 2, 7, 1000, 50'000));

} // namespace

} // namespace tavelin::test
