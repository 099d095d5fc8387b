#include "lab/model_run.hpp"

#include "lab/agreement.hpp"
#include "lab/structural_check.hpp"

#include <stdexcept>

namespace tavelin::test {

namespace {

constexpr std::size_t kStepsBetweenFullChecks = 40;

std::string step(System& system, Model& model, const Operation& op) {
    const Answer expected = model.apply(op);
    const std::string fault = difference(system.apply(op), expected);
    return fault.empty() ? compare(system, model, touched(model, op)) : fault;
}

} // namespace

std::string ModelRun::play(const Operations& script) const {
    const SampleVolume volume(geometry);
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

std::string ModelRun::playRandom(std::uint64_t seed, std::size_t steps) const {
    OperationSource source(seed);
    Model model(windowsNames);
    Operations script;
    for (std::size_t i = 0; i < steps; ++i) {
        script.push_back(source.next(model.tree()));
        model.apply(script.back());
    }
    const std::string fault = play(script);
    if (fault.empty()) {
        return "";
    }
    const Operations shorter =
        shrink(script, [this](const Operations& some) { return !play(some).empty(); });
    return fault + "in short:\n" + toText(shorter) + play(shorter);
}

} // namespace tavelin::test
