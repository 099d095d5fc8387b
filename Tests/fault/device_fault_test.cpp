#include "lab/device_ladder.hpp"
#include "lab/recording.hpp"
#include "platform/error_numbers.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

#if __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <iostream>

namespace tavelin::test {
namespace {

constexpr std::uint64_t kCached = 512; // bytes: a block size that the page cache works with
constexpr std::uint64_t kUncached = 8192;
constexpr std::size_t kMany = 10; // names: too many device calls to fail each without the cache

const Bytes& base() {
    static const Bytes image = preparedVolume();
    return image;
}

// Opened, it is completed first. There is no journal without the cache.
const Bytes& interrupted() {
    static const Bytes image = pendingVolume();
    return image;
}

// Without the cache, and in a mount that fails, the library loses memory of its own when the device
// fails.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
using LibraryLeaks = __lsan::ScopedDisabler;
#else
struct LibraryLeaks {
    LibraryLeaks() {}
};
#endif

struct Case {
    DeviceFault fault;
    bool uncachedToo = false;
};

class FailingDevice : public ::testing::TestWithParam<Case> {
  protected:
    void climb(std::uint64_t blockSize) {
        const DeviceFault& fault = GetParam().fault;
        const DeviceLadder ladder(base(), blockSize);
        LadderResult result = [&] {
            const LibraryLeaks allowed;
            return DeviceLadder(blockSize == kCached ? interrupted() : base(), blockSize)
                .climbOpening(fault);
        }();
        for (const Workload& request : allRequests()) {
            if (blockSize == kCached || request.touches.size() < kMany) {
                result.add(ladder.climb(request, fault));
            }
        }
        std::cout << fault.describe() << ", blocks of " << blockSize << ": " << result.rungs
                  << " runs, " << result.failures << " calls failed, " << result.lostNames
                  << " new names lost\n";
        for (const std::string& complaint : result.faults) {
            ADD_FAILURE() << "blocks of " << blockSize << ": " << complaint;
        }
    }

    const ReplacedServices services; // no flush but those that are asked for
};

TEST_P(FailingDevice, EveryRequest) {
    climb(kCached);
    if (GetParam().uncachedToo) {
        const LibraryLeaks allowed;
        climb(kUncached);
    }
}

using Times = DeviceFault::Times;
INSTANTIATE_TEST_SUITE_P(
    , FailingDevice,
    ::testing::Values(Case{{kEIO, Times::once}, true}, Case{{kEIO, Times::forAWhile}},
                      Case{{kEIO, Times::forGood}}, Case{{kENOSPC, Times::once}},
                      Case{{kENOSPC, Times::forAWhile}}, Case{{kENOSPC, Times::forGood}},
                      Case{{kENXIO, Times::once}}, Case{{kENXIO, Times::forGood}, true},
                      Case{{0, Times::once}}, Case{{0, Times::forAWhile}}),
    [](const auto& chosen) {
        std::string name = chosen.param.fault.describe();
        std::replace(name.begin(), name.end(), ' ', '_');
        return name;
    });

} // namespace
} // namespace tavelin::test
