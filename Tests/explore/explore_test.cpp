#include "explore/explore.hpp"
#include "support/replaced_services.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace tavelin::test {

namespace {

// Hides nothing that is in a directory below the root.
class FaultySystem final : public System {
  public:
    using System::System;
    Answer apply(const Operation& op) override {
        const bool isDeep = op.path.find('/', 1) != std::string::npos;
        Answer answer = System::apply(op.verb == Verb::hide && isDeep
                                          ? Operation{.verb = Verb::lookup, .path = op.path}
                                          : op);
        answer.data = op.verb == Verb::hide ? "" : answer.data;
        return answer;
    }
};

class Exploring : public ::testing::Test {
  protected:
    const ReplacedServices services_;
    const Bytes formatted_ = loadImage(SampleVolume({.bytes = 4u << 20}).image());
    std::ostringstream trace_;
};

TEST_F(Exploring, FindsAFaultAndTheShortestScriptOfIt) {
    const MakeSystem faulty = [](System::Open open) -> std::unique_ptr<System> {
        return std::make_unique<FaultySystem>(std::move(open));
    };
    Explorer explorer({}, formatted_, faulty);
    std::string fault;
    for (int walks = 0; walks < 20 && fault.empty(); ++walks) {
        trace_.str("");
        fault = explorer.walk(trace_);
    }
    EXPECT_NE(fault.find("hidden"), std::string::npos) << fault;
    EXPECT_EQ(trace_.str(), toText(explorer.script()));
    const Operations shortest = shrink(fromText(trace_.str()), [&](const Operations& some) {
        return !play(some, formatted_, faulty).empty();
    });
    // A directory, something in it, and hiding that.
    ASSERT_EQ(shortest.size(), 3u) << toText(shortest);
    EXPECT_EQ(shortest.back().verb, Verb::hide);
    EXPECT_EQ(play(shortest, formatted_), "");
}

TEST_F(Exploring, GoesOnWhereItStopped) {
    Explorer atOnce({.seed = 7, .worker = 1, .workers = 2}, formatted_);
    std::stringstream kept;
    for (int walks = 0; walks < 6; ++walks) {
        if (walks == 3) {
            atOnce.save(kept);
        }
        ASSERT_EQ(atOnce.walk(trace_), "") << toText(atOnce.script());
    }
    Explorer resumed({.seed = 7, .worker = 1, .workers = 2}, formatted_);
    resumed.load(kept);
    const std::size_t known = resumed.states().size();
    for (int walks = 3; walks < 6; ++walks) {
        ASSERT_EQ(resumed.walk(trace_), "") << toText(resumed.script());
    }
    EXPECT_LT(known, resumed.states().size());
    EXPECT_EQ(resumed.states(), atOnce.states());
    for (const std::uint64_t state : resumed.states()) {
        ASSERT_EQ(state % 2, 1u); // the others are the other worker's
    }
    std::istringstream other(kept.str());
    EXPECT_THROW(Explorer({.seed = 8}, formatted_).load(other), std::runtime_error);
}

} // namespace

} // namespace tavelin::test
