#include "platform/utility_queue.hpp"
#include "support/on_threads.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <latch>
#include <thread>

namespace tavelin {
namespace {

TEST(UtilityQueue, RunsWorkOnAnotherThreadThatTakesNoSignals) {
    std::promise<std::pair<std::thread::id, int>> ran;
    runOnUtilityQueue([&] {
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        ran.set_value({std::this_thread::get_id(), sigismember(&blocked, SIGTERM)});
    });
    const auto [thread, blocksTermination] = ran.get_future().get();
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(blocksTermination, 1);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

TEST(UtilityQueue, WorkThatWaitsForOtherWorkGetsIt) {
    std::latch both(2);
    std::promise<void> done;
    runOnUtilityQueue([&] {
        runOnUtilityQueue([&] { both.count_down(); });
        both.arrive_and_wait();
        done.set_value();
    });
    done.get_future().wait();
}

TEST(UtilityQueue, EveryPieceOfWorkRunsOnce) {
    constexpr int kSubmitters = 4;
    constexpr int kEach = 500;
    std::latch left(kSubmitters * kEach);
    std::atomic<int> runs = 0;
    test::onThreads(kSubmitters, [&](int) {
        for (int n = 0; n < kEach; ++n) {
            runOnUtilityQueue([&] {
                ++runs;
                left.count_down();
            });
        }
    });
    left.wait();
    EXPECT_EQ(runs, kSubmitters * kEach);
}

} // namespace
} // namespace tavelin
