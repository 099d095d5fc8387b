// Requests from several threads at once, on the same names.
#include "module_fixture.hpp"

#include <thread>

namespace tavelin {
namespace {

using namespace test;

class Threads : public VolumeTest {};

TEST_F(Threads, ChangesReclaimsListingsAndFlushesMeetInOneDirectory) {
    start();
    const Item directory = *requests().create(root, "folder", Type::directory);
    const Item kept = *requests().create(directory, "kept");
    const auto change = [&](const std::string& mine) {
        auto ask = requests();
        const Item file = *ask.create(directory, mine);
        EXPECT_EQ(*ask.lookup(directory, mine), file);
        EXPECT_EQ(ask.rename(file, directory, mine, root, mine).code(), 0);
        EXPECT_EQ(ask.remove(file, root, mine), 0);
        ask.reclaim(file);
    };
    const auto look = [&](bool withAttributes) {
        auto ask = requests();
        Page page;
        EXPECT_EQ(ask.list(directory, page, 0, 0, withAttributes).code(), 0);
        EXPECT_EQ(std::count_if(page.entries.begin(), page.entries.end(),
                                [](const Entry& entry) { return entry.name == "kept"; }),
                  1)
            << "what stays is listed once, whatever comes and goes";
        ask.reclaim(*ask.lookup(directory, "kept"));
        EXPECT_EQ(ask.attributes(kept)->type(), Type::file);
        EXPECT_EQ(ask.setName("Sample" + std::to_string(withAttributes)), 0);
        EXPECT_EQ(ask.synchronize(), 0);
        services.timers().tick();
    };
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; ++worker) {
        threads.emplace_back([&, worker] {
            for (int round = 0; round < 60; ++round) {
                worker < 2 ? change("file" + std::to_string(worker)) : look(worker == 2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unload(), 0);
    save();
    EXPECT_EQ(sample.list("/folder"), std::vector<std::string>{"kept"});
}

} // namespace
} // namespace tavelin
