#include "fault/device_ladder.hpp"
#include "platform/error_numbers.hpp"
#include "support/replaced_services.hpp"

#include <gtest/gtest.h>

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

class FailingDevice : public ::testing::TestWithParam<DeviceFault> {
  protected:
    const ReplacedServices services; // no flush but those that are asked for
};

TEST_P(FailingDevice, EveryRequest) {
    for (const std::uint64_t blockSize : {kCached, kUncached}) {
        const DeviceLadder ladder(base(), blockSize);
        LadderResult result = ladder.climbOpening(GetParam());
        for (const Operation& request : allRequests()) {
            if (blockSize == kCached || request.touches.size() < kMany) {
                result.add(ladder.climb(request, GetParam()));
            }
        }
        std::cout << GetParam().describe() << ", blocks of " << blockSize << ": " << result.rungs
                  << " runs, " << result.failures << " calls failed, " << result.halfDone
                  << " changes left half done\n";
        for (const std::string& fault : result.faults) {
            ADD_FAILURE() << "blocks of " << blockSize << ": " << fault;
        }
    }
}

using Times = DeviceFault::Times;
INSTANTIATE_TEST_SUITE_P(
    , FailingDevice,
    ::testing::Values(DeviceFault{kEIO, Times::once}, DeviceFault{kEIO, Times::forAWhile},
                      DeviceFault{kENOSPC, Times::once}, DeviceFault{kENOSPC, Times::forAWhile},
                      DeviceFault{kENXIO, Times::forGood}, DeviceFault{0, Times::forAWhile}),
    [](const auto& chosen) {
        std::string name = chosen.param.describe();
        std::replace(name.begin(), name.end(), ' ', '_');
        return name;
    });

} // namespace
} // namespace tavelin::test
