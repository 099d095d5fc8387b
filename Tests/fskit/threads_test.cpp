// Requests from several threads at once.
#include "module_fixture.hpp"

#include <thread>

namespace tavelin {
namespace {

using namespace test;

class Threads : public VolumeTest {};

TEST_F(Threads, LookupsReclaimsListingsAndChangesMeetInOneFolder) {
    start();
    const Item folder = *requests().create(root, "folder", Type::directory);
    const Item kept = *requests().create(folder, "kept");
    constexpr int kRounds = 60;
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 3; ++worker) {
        threads.emplace_back([&, worker] {
            auto ask = requests();
            const std::string mine = "file" + std::to_string(worker);
            for (int round = 0; round < kRounds; ++round) {
                const Item file = *ask.create(folder, mine);
                EXPECT_EQ(*ask.write(file, 0, mine), mine.size());
                EXPECT_EQ(*ask.lookup(folder, mine), file);
                EXPECT_EQ(ask.rename(file, folder, mine, root, mine).code(), 0);
                EXPECT_EQ(*ask.read(file, 0, 100), mine);
                EXPECT_EQ(ask.remove(file, root, mine).code(), 0);
                EXPECT_EQ(ask.reclaim(file).code(), 0);
            }
        });
    }
    threads.emplace_back([&] {
        auto ask = requests();
        fskit::FSDirectoryVerifier verifier = 0;
        for (int round = 0; round < kRounds; ++round) {
            // Whatever comes and goes, what stays is listed, once.
            Page page;
            verifier = *ask.list(folder, page, 0, verifier, round % 2 == 0);
            EXPECT_EQ(std::count_if(page.entries.begin(), page.entries.end(),
                                    [](const Entry& entry) { return entry.name == "kept"; }),
                      1);
        }
    });
    threads.emplace_back([&] {
        auto ask = requests();
        for (int round = 0; round < kRounds; ++round) {
            const Item found = *ask.lookup(folder, "kept");
            EXPECT_EQ((*ask.attributes(found))->type(), Type::file);
            EXPECT_EQ(ask.reclaim(found).code(), 0);
            EXPECT_EQ(ask.synchronize().code(), 0);
            services.timers().tick();
            EXPECT_EQ(volume().name().data().substr(0, 6), "Sample");
            EXPECT_EQ(ask.setName("Sample" + std::to_string(round)).code(), 0);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unload().code(), 0);
    save();
    EXPECT_EQ(sample.list("/folder"), std::vector<std::string>{"kept"});
    EXPECT_EQ(sample.check().find("FAILED"), std::string::npos);
}

} // namespace
} // namespace tavelin
