// Every allocation that a request makes, on its way through host, front end, core and bridge, fails
// in turn.
#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/recording.hpp"
#include "lab/requests.hpp"
#include "platform/error_numbers.hpp"
#include "support/failure_stride.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <new>
#include <optional>

namespace {

// The thread's allocations until one fails; 0: none does.
thread_local std::uint64_t untilFailure = 0;
thread_local std::uint64_t failed = 0;

bool fails() noexcept {
    const bool isTheOne = untilFailure != 0 && --untilFailure == 0;
    failed += isTheOne ? 1 : 0;
    return isTheOne;
}

} // namespace

// What the bridge hands out it takes from malloc; the linker's --wrap leads it here.
extern "C" {
void* __real_malloc(std::size_t bytes);
void* __wrap_malloc(std::size_t bytes) {
    return fails() ? nullptr : __real_malloc(bytes);
}
}

namespace {

void* allocate(std::size_t bytes) noexcept {
    return __wrap_malloc(bytes == 0 ? 1 : bytes);
}

void* allocateOrThrow(std::size_t bytes) {
    if (void* memory = allocate(bytes)) {
        return memory;
    }
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t bytes) {
    return allocateOrThrow(bytes);
}
void* operator new[](std::size_t bytes) {
    return allocateOrThrow(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return allocate(bytes);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace tavelin::test {
namespace {

constexpr std::size_t kMany = 10; // names

const Bytes& base() {
    static const Bytes image = preparedVolume();
    return image;
}

// Runs `work` with the allocation numbered `which` failing; false when it asked for fewer. What it
// answers for want of memory is for it to choose.
template<typename Work>
bool withFailure(std::uint64_t which, Work&& work) {
    failed = 0;
    untilFailure = which;
    try {
        work();
    } catch (const std::bad_alloc&) {
        // The host itself had no memory left.
    } catch (const fskit::Error& error) {
        EXPECT_NE(error.code(), 0);
    } catch (const OpenError& error) {
        EXPECT_NE(error.code(), 0);
    }
    untilFailure = 0;
    return failed > 0;
}

Snapshot contentAfter(const Workload& request) {
    ModuleHost host(std::make_shared<HostDisk>(base()));
    host.open();
    request.run(host.volume());
    return takeSnapshot(host.volume());
}

class NoMemory : public ::testing::Test {
  protected:
    const ReplacedServices services; // no flush but those that are asked for
};

TEST_F(NoMemory, EveryRequest) {
    std::uint64_t failures = 0;
    std::uint64_t first = 0; // another one for each request
    for (const Workload& request : allRequests()) {
        first = first % kFailureStride + 1;
        if (request.touches.size() > kMany) {
            continue; // the same allocations again
        }
        const Snapshot wanted = contentAfter(request);
        bool met = true;
        for (std::uint64_t which = first; met; which += kFailureStride) {
            SCOPED_TRACE(request.name + ", allocation " + std::to_string(which));
            const auto disk = std::make_shared<HostDisk>(base());
            ModuleHost host(disk);
            host.open();
            bool done = false;
            met = withFailure(which, [&] {
                request.run(host.volume());
                done = true;
                host.volume().synchronize().get();
            });
            if (!done) {
                try {
                    request.run(host.volume());
                    done = true;
                } catch (const fskit::Error& error) {
                    // The first try may have come as far as the name.
                    EXPECT_TRUE(error.code() == kEEXIST || error.code() == kENOENT) << error.what();
                }
            }
            host.volume().synchronize().get();
            EXPECT_EQ(difference(wanted, contentOf(disk->bytes), request.undecided(done)), "");
            host.close().get();
            ASSERT_FALSE(HasFailure());
            failures += met ? 1 : 0;
        }
    }
    std::cout << failures << " allocations of requests and flushes failed\n";
}

TEST_F(NoMemory, OpeningAndClosing) {
    const Workload& request = allRequests().front();
    const Snapshot before = contentOf(base());
    const Snapshot after = contentAfter(request);
    std::uint64_t failures = 0;
    bool met = true;
    for (std::uint64_t which = 1; met; which += kFailureStride) {
        SCOPED_TRACE(which);
        const auto disk = std::make_shared<HostDisk>(base());
        ModuleHost host(disk);
        bool done = false;
        met = withFailure(which, [&] {
            host.open();
            request.run(host.volume());
            done = true;
            host.volume().synchronize().get();
            host.close().get();
        });
        if (host.isLoaded()) {
            host.close().get();
        }
        host.open();
        host.close().get();
        EXPECT_EQ(
            difference(done ? after : before, contentOf(disk->bytes), request.undecided(done)), "");
        ASSERT_FALSE(HasFailure());
        failures += met ? 1 : 0;
    }
    std::cout << failures << " allocations from opening to closing failed\n";
}

} // namespace
} // namespace tavelin::test
