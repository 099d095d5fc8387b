// Random damage: the check always ends, in good time, with a report.
#include "check/hostile_volume.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace tavelin::test {
namespace {

// TAVELIN_HOSTILE_RUNS asks for more, TAVELIN_HOSTILE_SEED for others.
uint64_t fromEnvironment(const char* name, uint64_t otherwise) {
    const char* const text = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    return text == nullptr ? otherwise : std::stoull(text);
}

TEST(HostileVolumes, AreCheckedToTheEnd) {
    const uint64_t runs = fromEnvironment("TAVELIN_HOSTILE_RUNS", 500);
    std::mt19937_64 random(fromEnvironment("TAVELIN_HOSTILE_SEED", 1));
    uint64_t damaged = 0;
    for (uint64_t i = 0; i < runs; ++i) {
        std::vector<uint8_t> input(1 + 8 * (1 + random() % 12));
        for (uint8_t& byte : input) {
            byte = static_cast<uint8_t>(random());
        }
        damaged += checkHostile(input).isClean() ? 0 : 1;
    }
    EXPECT_GT(damaged, runs / 2); // else the damage missed the structures
    EXPECT_TRUE(checkHostile({}).isClean());
}

} // namespace
} // namespace tavelin::test
