// Random requests against a volume and against a plain model of one, which must agree on every
// answer and every item after every step, and again after the volume was closed and opened.
//
// TAVELIN_MODEL_SEED, the first seed of eight, and TAVELIN_MODEL_STEPS run something else than
// usual.

#include "lab/agreement.hpp"
#include "lab/structural_check.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

namespace tavelin::test {

namespace {

constexpr std::size_t kStepsBetweenFullChecks = 40;

std::string step(System& system, Model& model, const Operation& op) {
    const Answer expected = model.apply(op);
    const std::string fault = difference(system.apply(op), expected);
    return fault.empty() ? compare(system, model, touched(model, op)) : fault;
}

// What went wrong first in a whole run on a fresh volume; empty when nothing did.
std::string play(const Operations& script, bool windowsNames) {
    const SampleVolume volume({.bytes = 128ull << 20});
    volume.leaveUnchecked(); // what is found belongs into the result
    const ModuleHost::Options options =
        windowsNames ? ModuleHost::Options{"-o", "windows_names"} : ModuleHost::Options{};
    try {
        System system(volume.image(), options);
        Model model(windowsNames);
        for (std::size_t i = 0; i < script.size(); ++i) {
            std::string fault = step(system, model, script[i]);
            if (fault.empty() &&
                (script[i].verb == Verb::reload || i % kStepsBetweenFullChecks == 0)) {
                fault = compare(system, model, model.tree().items);
            }
            if (!fault.empty()) {
                return "step " + std::to_string(i + 1) + ": " + toText({script[i]}) + fault;
            }
        }
        system.reload();
        if (std::string fault = compare(system, model, model.tree().items); !fault.empty()) {
            return "after reloading: " + fault;
        }
    } catch (const std::exception& error) {
        return error.what();
    }
    try {
        (void)volume.check();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return structuralComplaints(volume.image());
}

void runSeed(std::uint64_t seed, std::size_t steps, bool windowsNames) {
    OperationSource source(seed);
    Model model(windowsNames);
    Operations script;
    for (std::size_t i = 0; i < steps; ++i) {
        script.push_back(source.next(model.tree()));
        model.apply(script.back());
    }
    const std::string fault = play(script, windowsNames);
    if (!fault.empty()) {
        const Operations shorter = shrink(script, [&](const Operations& some) {
            return !play(some, windowsNames).empty();
        });
        ADD_FAILURE() << "seed " << seed << ", windows_names " << windowsNames << "\n"
                      << fault << "in short:\n"
                      << toText(shorter) << play(shorter, windowsNames);
    }
}

std::uint64_t number(const char* variable, std::uint64_t usual) {
    const char* text = std::getenv(variable);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : usual;
}

class ModelRun : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ModelRun, AgreesWithTheVolume) {
    const std::uint64_t seed = number("TAVELIN_MODEL_SEED", 1) + GetParam();
    runSeed(seed, number("TAVELIN_MODEL_STEPS", 800), seed % 4 == 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelRun, ::testing::Range<std::uint64_t>(0, 8));

} // namespace

} // namespace tavelin::test
