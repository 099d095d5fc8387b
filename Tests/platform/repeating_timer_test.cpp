#include "platform/mutex.hpp"
#include "platform/repeating_timer.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <sys/resource.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tavelin {
namespace {

using namespace std::chrono_literals;

constexpr TimerSchedule kFast{1ms, 0ns};

/// Tells when the last copy of a tick's closure is gone, and with it the thread that ran it.
class Ending {
  public:
    std::shared_ptr<void> token() { return std::move(token_); }
    void wait() { gone_.get_future().wait(); }

  private:
    std::promise<void> gone_;
    std::shared_ptr<void> token_{this, [](Ending* self) { self->gone_.set_value(); }};
};

TEST(RepeatingTimer, TicksAgainAndAgainButNotBeforeItsInterval) {
    std::promise<void> third;
    std::atomic<int> ticks = 0;
    Ending ending;
    const auto start = std::chrono::steady_clock::now();
    auto timer = makeUnownedTimer({20ms, 1ms}, [&, token = ending.token()] {
        if (++ticks == 3) {
            third.set_value();
        }
    });
    timer->start();
    timer->start();
    third.get_future().wait();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 60ms);
    timer.reset();
    ending.wait();
}

// Leaves no address space for another thread's stack.
class NoThreads {
  public:
    NoThreads() {
        std::ifstream sizes("/proc/self/statm");
        rlim_t pages = 0;
        sizes >> pages;
        EXPECT_EQ(getrlimit(RLIMIT_AS, &before_), 0);
        const rlimit tight{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)), before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    }
    ~NoThreads() { EXPECT_EQ(setrlimit(RLIMIT_AS, &before_), 0); }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

  private:
    rlimit before_{};
};

TEST(RepeatingTimer, StartsLaterWhereThereWasNoThread) {
#if defined(TAVELIN_SANITIZE)
    GTEST_SKIP() << "a sanitizer needs memory of its own for each thread, and ends the process";
#endif
    std::promise<void> first;
    std::atomic<bool> ticked = false;
    Ending ending;
    auto timer = makeUnownedTimer(kFast, [&, token = ending.token()] {
        if (!ticked.exchange(true)) {
            first.set_value();
        }
    });
    // Its stack may be one that an ended thread left to the next one.
    std::vector<std::thread> others;
    std::promise<void> over;
    const auto isOver = over.get_future().share();
    bool hasFailed = false;
    {
        const NoThreads none;
        try {
            while (others.size() < 100) {
                others.emplace_back([=] { isOver.wait(); });
            }
        } catch (const std::system_error&) {
            EXPECT_THROW(timer->start(), std::system_error);
            hasFailed = true;
        }
    }
    over.set_value();
    for (std::thread& other : others) {
        other.join();
    }
    ASSERT_TRUE(hasFailed);
    timer->start();
    first.get_future().wait();
    timer.reset();
    ending.wait();
}

TEST(RepeatingTimer, ATickMayCancelItsOwnTimer) {
    std::atomic<int> ticks = 0;
    Ending ending;
    std::promise<RepeatingTimer*> made;
    auto timer =
        makeUnownedTimer(kFast, [&, own = made.get_future().share(), token = ending.token()] {
            ++ticks;
            own.get()->cancel();
        });
    made.set_value(timer.get());
    timer->start();
    ending.wait();
    EXPECT_EQ(ticks, 1);
}

TEST(RepeatingTimer, ACancelledOneNeverStarts) {
    std::atomic<int> ticks = 0;
    Ending ending;
    auto timer = makeUnownedTimer(kFast, [&, token = ending.token()] { ++ticks; });
    timer->cancel();
    timer->start();
    timer.reset();
    ending.wait();
    EXPECT_EQ(ticks, 0);
}

TEST(RepeatingTimer, CancellingDoesNotWaitForATickThatWantsTheCallersLock) {
    Mutex mutex;
    std::promise<void> entered;
    std::atomic<bool> first = true;
    Ending ending;
    auto timer = makeUnownedTimer(kFast, [&, token = ending.token()] {
        if (first.exchange(false)) {
            entered.set_value();
        }
        MutexLock lock(mutex);
    });
    {
        MutexLock lock(mutex);
        timer->start();
        entered.get_future().wait();
        timer.reset();
    }
    ending.wait();
}

/// Owns its timer, as a volume does.
struct Owner {
    explicit Owner(std::promise<std::thread::id>& destroyedOn) : destroyed(destroyedOn) {}
    ~Owner() {
        timer.reset();
        destroyed.set_value(std::this_thread::get_id());
    }
    std::promise<std::thread::id>& destroyed;
    std::unique_ptr<RepeatingTimer> timer;
};

TEST(RepeatingTimer, TheLastReferenceToTheOwnerMayBeDroppedByATick) {
    std::promise<std::thread::id> destroyed;
    std::promise<void> ticking;
    std::promise<void> dropped;
    Ending ending;
    auto owner = std::make_shared<Owner>(destroyed);
    owner->timer =
        makeRepeatingTimer(std::weak_ptr(owner), kFast, [&, token = ending.token()](Owner&) {
            ticking.set_value();
            dropped.get_future().wait();
        });
    owner->timer->start();
    ticking.get_future().wait();
    owner.reset(); // from here on only the running tick keeps it
    dropped.set_value();
    EXPECT_NE(destroyed.get_future().get(), std::this_thread::get_id());
    ending.wait();
}

TEST(RepeatingTimer, TicksWithoutAnOwnerDoNothing) {
    test::ReplacedServices replaced;
    int acted = 0;
    auto owner = std::make_shared<int>(0);
    const auto timer = makeRepeatingTimer(std::weak_ptr(owner), kFast, [&](int&) { ++acted; });
    timer->start();
    replaced.timers().tick();
    EXPECT_EQ(acted, 1);
    EXPECT_EQ(owner.use_count(), 1);
    owner.reset();
    replaced.timers().tick();
    EXPECT_EQ(acted, 1);
}

} // namespace
} // namespace tavelin
