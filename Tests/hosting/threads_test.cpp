// Several threads on one volume: each with a tree and a model of its own, which must agree whatever
// the others do; and all of them in one directory, where what is seen must be whole work.

#include "lab/system.hpp"
#include "platform/error_numbers.hpp"
#include "support/on_threads.hpp"
#include "support/own_group.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <atomic>

namespace tavelin::test {

namespace {

constexpr int kThreads = 4;

TEST(ModelThreads, EachTreeAgreesWithItsModel) {
    constexpr int kSteps = 250;
    const SampleVolume sample({.bytes = 128ull << 20});
    System system(sample.image());
    std::vector<Model> models(kThreads);
    onThreads(kThreads, [&](int thread) {
        Model& model = models[static_cast<std::size_t>(thread)];
        const std::string base = "/tree " + std::to_string(thread);
        OperationSource source(100 + static_cast<std::uint64_t>(thread));
        const Operation make{.verb = Verb::mkdir, .path = base};
        const auto agree = [&](const Operation& op) {
            const Answer expected = model.apply(op); // first, as it takes the time
            return system.apply(op) == expected;
        };
        ASSERT_TRUE(agree(make));
        for (int i = 0; i < kSteps; ++i) {
            const Operation op = source.next(model.tree(base));
            if (op.verb != Verb::reload) {
                ASSERT_TRUE(agree(op)) << toText({op});
            }
            if (i % 10 == 0 && !op.path.empty() && model.has(op.path)) {
                ASSERT_EQ(model.disagreement(op.path, system.observe(op.path)), "") << toText({op});
            }
        }
    });
    for (const bool reloaded : {false, true}) {
        for (std::size_t i = 0; i < models.size(); ++i) {
            for (const std::string& path : models[i].tree("/tree " + std::to_string(i)).items) {
                EXPECT_EQ(models[i].disagreement(path, system.observe(path)), "") << reloaded;
            }
        }
        system.reload();
    }
}

// Every thread writes files of its own and renames them over one name, which is never missing and
// never half of anything, while others list, look up, label and synchronise the volume.
TEST(SharedDirectory, ShowsOnlyWholeWork) {
    constexpr int kRounds = 60;
    constexpr std::size_t kBytes = 5000;
    const SampleVolume sample;
    const auto host = ModuleHost::openImage(sample.image());
    VolumeClient& volume = host->volume();
    const ItemRef shared =
        volume.create(volume.root(), "shared", fskit::FSItemType::directory).get().item;
    std::atomic<bool> published = false;

    const auto publish = [&](int thread, int round) {
        const std::string own = "own " + std::to_string(thread) + " " + std::to_string(round);
        const ItemRef file = volume.create(shared, own, fskit::FSItemType::file).get().item;
        const std::vector<std::byte> content(kBytes, static_cast<std::byte>(1 + thread));
        ASSERT_EQ(volume.write(file, 0, content).get(), kBytes);
        auto over = volume.lookup(shared, "winner");
        ItemRef none;
        volume.rename(file, shared, own, shared, "winner", over ? over->item : none).get();
        published = true;
    };
    const auto observe = [&](bool withAttributes) {
        const bool expected = published;
        auto winner = volume.lookup(shared, "winner");
        ASSERT_TRUE(winner || !expected);
        if (winner) {
            std::vector<std::byte> content(kBytes + 1);
            // Replaced meanwhile, it is gone, and never somebody's new file in the same record.
            const auto count = volume.read(winner->item, 0, content);
            ASSERT_TRUE(count ? *count == kBytes : count.error().code() == kESTALE);
            for (std::size_t i = 1; count && i < *count; ++i) {
                ASSERT_EQ(content[i], content[0]);
            }
        }
        std::size_t winners = 0;
        EntryPacker packer(1 << 20);
        ASSERT_TRUE(volume.enumerate(shared, 0, 0, withAttributes, packer));
        for (const DirectoryEntry& entry : packer.entries()) {
            winners += entry.name == "winner" ? 1 : 0;
        }
        ASSERT_TRUE(winners == 1 || (winners == 0 && !expected));
    };
    onThreads(kThreads, [&](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            publish(thread, round);
            observe(round % 2 == 0);
            if (round % 20 == 0) {
                ASSERT_TRUE(volume.setName("Volume " + std::to_string(thread)));
                ASSERT_TRUE(volume.synchronize());
            }
        }
    });
    EXPECT_EQ(volume.list(shared, false).get().size(), 1u);
    EXPECT_EQ(volume.liveItems(), 2u);
    EXPECT_TRUE(volume.remove(volume.lookup(shared, "winner").get().item, shared, "winner"));
}

} // namespace

} // namespace tavelin::test
