// The module host's own promises: steps in turn, one reclaim for each item, withheld opens, reasons
// in words, paths, and the resource over an image.

#include "diagnostics/op_counter.hpp"
#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "platform/error_numbers.hpp"
#include "support/on_threads.hpp"
#include "support/own_group.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

namespace tavelin::test {

namespace {

using Type = fskit::FSItemType;

template<typename Value>
std::int64_t codeOf(const Outcome<Value>& outcome) {
    return outcome ? 0 : outcome.error().code();
}

TEST(ItemRef, ReclaimsWithTheLastReferenceAndNeverUnderALookup) {
    const SampleVolume sample;
    const auto host = ModuleHost::openImage(sample.image());
    VolumeClient& volume = host->volume();
    (void)volume.create(volume.root(), "f", Type::file).get();
    EXPECT_EQ(volume.liveItems(), 1u);
    {
        ItemRef first = volume.lookup(volume.root(), "f").get().item;
        const ItemRef second = volume.lookup(volume.root(), "f").get().item;
        const ItemRef third = first.duplicate();
        EXPECT_TRUE(first == second && second == third);
        first = ItemRef();
        EXPECT_EQ(volume.liveItems(), 2u);
    }
    EXPECT_EQ(volume.liveItems(), 1u);

    // What two threads hold at the same time is the same item, whatever is reclaimed in between.
    std::atomic<int> different = 0;
    onThreads(4, [&](int) {
        for (int round = 0; round < 500; ++round) {
            const ItemRef first = volume.lookup(volume.root(), "f").get().item;
            const ItemRef second = volume.lookup(volume.root(), "f").get().item;
            different += first == second ? 0 : 1;
        }
    });
    EXPECT_EQ(different, 0);
    EXPECT_EQ(volume.liveItems(), 1u);
}

TEST(ModuleHost, WithholdsOpensAndClosesWhileTheVolumeInhibitsThem) {
    const SampleVolume sample;
    const auto host = ModuleHost::openImage(sample.image());
    VolumeClient& volume = host->volume();
    const ItemRef file = volume.create(volume.root(), "f", Type::file).get().item;
    (void)OpCounter::shared().dumpAndReset();
    const auto openAndClose = [&] {
        EXPECT_TRUE(volume.open(file, fskit::FSVolumeOpenModesRead));
        volume.close(file, 0);
        return OpCounter::shared().dumpAndReset();
    };
    EXPECT_EQ(openAndClose().find("Item"), std::string::npos);
    volume.setOpenCloseInhibited(false);
    const std::string counted = openAndClose();
    EXPECT_NE(counted.find("openItem"), std::string::npos);
    EXPECT_NE(counted.find("closeItem"), std::string::npos);
}

TEST(ModuleHost, SaysWhyAVolumeCannotBeOpened) {
    using Reason = OpenError::Reason;
    const SampleVolume sample;
    const TempDirectory& directory = sample.directory();
    writeFile(directory / "text", std::string(10'000, 'x'));
    writeFile(directory / "empty", {});
    // A boot sector and nothing else.
    writeFile(directory / "head", readFile(sample.image()).substr(0, 4096));
    const ImageResource inUse(sample.image());
    const std::vector<std::pair<std::filesystem::path, Reason>> cases{
        {directory / "missing", Reason::notFound},
        {directory / "text", Reason::notNTFS},
        {directory / "empty", Reason::notNTFS},
        {directory / "head", Reason::refused},
        {directory.path(), Reason::notBlockDevice},
        {"/dev/null", Reason::notBlockDevice},
        {sample.image(), Reason::inUse},
    };
    for (const auto& [path, reason] : cases) {
        SCOPED_TRACE(path);
        try {
            (void)ModuleHost::openImage(path);
            ADD_FAILURE() << "opened";
        } catch (const OpenError& error) {
            EXPECT_EQ(error.reason(), reason) << error.what();
            EXPECT_NE(std::string(error.what()).find(path.filename()), std::string::npos);
        }
    }
}

TEST(ModuleHost, OpensAgainAfterClosingAndWithOtherVolumesInTheProcess) {
    const SampleVolume one;
    const SampleVolume two;
    ModuleHost first(std::make_shared<ImageResource>(one.image()));
    first.open({"-o", "windows_names"});
    const auto second = ModuleHost::openImage(two.image());
    const auto create = [](ModuleHost& host, const char* name) {
        return codeOf(host.volume().create(host.volume().root(), name, Type::file));
    };
    EXPECT_EQ(create(first, "a:b"), kEINVAL);
    EXPECT_EQ(create(*second, "a:b"), 0);
    EXPECT_TRUE(first.check({"-q"}));
    EXPECT_EQ(codeOf(first.check({"-y"})), kENOTSUP);
    EXPECT_TRUE(first.close());
    EXPECT_TRUE(first.close());
    EXPECT_DEATH((void)first.unload(), "out of turn: unload");
    EXPECT_EQ(codeOf(first.check({"-q"})), kENXIO);
    first.open();
    EXPECT_EQ(create(first, "a:b"), 0);
}

TEST(VolumeClient, ListsEveryEntryOnceWhateverFitsIntoAPage) {
    const SampleVolume sample;
    const auto host = ModuleHost::openImage(sample.image());
    VolumeClient& volume = host->volume();
    for (const std::size_t count : {0, 1, 2, 7, 1000}) {
        const std::string name = std::to_string(count);
        const ItemRef directory = volume.create(volume.root(), name, Type::directory).get().item;
        std::vector<std::string> expected;
        for (std::size_t i = 0; i < count; ++i) {
            const std::string& entry =
                expected.emplace_back(std::to_string(1000 + i) + std::string(i % 60, '.') + "x");
            (void)volume.create(directory, entry, i % 3 == 0 ? Type::directory : Type::file).get();
        }
        for (const bool attributes : {false, true}) {
            for (const std::size_t pageBytes : {1, 200, 4096, 1 << 30}) {
                std::vector<std::string> names;
                for (const auto& entry : volume.list(directory, attributes, pageBytes).get()) {
                    names.push_back(entry.name);
                    ASSERT_EQ(entry.attributes.has_value(), attributes);
                    ASSERT_TRUE(!attributes || (entry.attributes->fileID() == entry.itemID &&
                                                entry.attributes->type() == entry.type));
                }
                std::ranges::sort(names); // the volume's order goes by index blocks
                EXPECT_EQ(names, expected) << "pages of " << pageBytes << " bytes";
            }
        }
    }
}

TEST(Paths, AreResolvedThroughLinksInsideTheVolume) {
    const SampleVolume sample;
    const auto host = ModuleHost::openImage(sample.image());
    VolumeClient& volume = host->volume();
    const auto make = [&](const std::string& path, Type type) {
        const Location at = locate(volume, path).get();
        (void)volume.create(at.directory, at.name, type).get();
    };
    const auto link = [&](const std::string& path, const std::string& target) {
        const Location at = locate(volume, path).get();
        (void)volume.createSymbolicLink(at.directory, at.name, target).get();
    };
    make("a", Type::directory);
    make("/a/b/", Type::directory);
    make("a/b/f", Type::file);
    link("a/up", "../a/b");
    link("absolute", "/a/up/f");
    link("loop", "loop");
    link("dangling", "nowhere");
    const auto id = [&](const char* path, LastLink last = LastLink::follow) -> std::uint64_t {
        const auto found = resolve(volume, path, last);
        return found ? found->attributes.fileID() : 0;
    };
    const std::uint64_t file = id("a/b/f");
    ASSERT_NE(file, 0u);
    for (const char* path :
         {"/a//b/./f", "a/up/f", "absolute", "../../a/b/../b/f", "a/up/../b/f"}) {
        EXPECT_EQ(id(path), file) << path;
    }
    EXPECT_EQ(id(""), fskit::FSItemIDRootDirectory);
    EXPECT_EQ(id("a/.."), fskit::FSItemIDRootDirectory);
    EXPECT_NE(id("absolute", LastLink::keep), file);
    EXPECT_EQ(codeOf(resolve(volume, "loop")), kELOOP);
    EXPECT_EQ(codeOf(resolve(volume, "dangling")), kENOENT);
    EXPECT_EQ(codeOf(resolve(volume, "a/b/f/g")), kENOTDIR);
    EXPECT_EQ(codeOf(locate(volume, "/")), kEINVAL);
    EXPECT_EQ(codeOf(locate(volume, "a/..")), kEINVAL);

    EXPECT_EQ(volume.liveItems(), 1u);
}

TEST(ImageResource, HasTheGeometryAskedForAndEndsWhereItEnds) {
    const TempDirectory directory;
    writeFile(directory / "image", std::string(10'000, 'i'));
    ImageResource image(directory / "image", {.blockSize = 4096, .physicalBlockSize = 8192});
    EXPECT_EQ(image.BSDName(), "image");
    EXPECT_EQ(image.blockCount(), 2u);
    EXPECT_EQ(image.physicalBlockSize(), 8192u);
    std::vector<std::byte> buffer(4096, std::byte{7});
    EXPECT_EQ(image.read(buffer.data(), 8192, 4096), 10'000u - 8192u);
    EXPECT_THROW(image.metadataRead(buffer.data(), 8192, 4096), fskit::Error);
    EXPECT_THROW((void)image.write(buffer.data(), 8192, 4096), fskit::Error) << "grew";
    EXPECT_EQ(image.write(buffer.data(), 0, 4096), 4096u);
    EXPECT_FALSE(image.flushToMedium());
    EXPECT_EQ(readFile(directory / "image").substr(4095, 2), std::string("\7i"));
    image.revoke();
    EXPECT_THROW((void)image.read(buffer.data(), 0, 512), fskit::Error);

    writeFile(directory / "other", std::string(1024, 'o'));
    ImageResource reader(directory / "other", {.readOnly = true});
    EXPECT_FALSE(reader.isWritable());
    EXPECT_THROW((void)reader.write(buffer.data(), 0, 512), fskit::Error);
    const ImageResource secondReader(directory / "other", {.readOnly = true});
    EXPECT_THROW(ImageResource(directory / "other"), OpenError) << "written to under its readers";
}

} // namespace

} // namespace tavelin::test
