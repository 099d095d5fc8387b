// Random requests against a volume and against a model of one.
//
// TAVELIN_MODEL_SEED, the first seed of eight, and TAVELIN_MODEL_STEPS run something else than
// usual.

#include "lab/model_run.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tavelin::test {

namespace {

std::uint64_t number(const char* variable, std::uint64_t usual) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : usual;
}

class ModelSeeds : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ModelSeeds, AgreesWithTheVolume) {
    const std::uint64_t seed = number("TAVELIN_MODEL_SEED", 1) + GetParam();
    const ModelRun run{.windowsNames = seed % 4 == 0};
    EXPECT_EQ(run.playRandom(seed, number("TAVELIN_MODEL_STEPS", 800)), "")
        << "seed " << seed << ", windows_names " << run.windowsNames;
}

INSTANTIATE_TEST_SUITE_P(, ModelSeeds, ::testing::Range<std::uint64_t>(0, 8));

} // namespace

} // namespace tavelin::test
