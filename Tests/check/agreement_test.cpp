// The check beside the independent tools: what one of them complains of, the check finds as well.
#include "check/check.hpp"
#include "check/filled_volume.hpp"
#include "check/hostile_volume.hpp"
#include "lab/disk_device.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <span>

namespace tavelin::test {
namespace {

struct Tool {
    std::vector<std::string> command;
    // Complaints of the sound, the damaged, and the damaged in which the check finds nothing.
    int sound = 0, damaged = 0, alone = 0;

    // A tool that crashes, or does not end, has complained as well.
    bool complains(const std::string& image) const {
        std::vector<std::string> words{"timeout", "20"};
        words.insert(words.end(), command.begin(), command.end());
        words.push_back(image);
        const ProcessResult result = run(words);
        // A volume without room to shrink is no damage.
        return !result.ok() && (result.out + result.err).find("is full") == std::string::npos;
    }
};

class Agreement : public testing::Test {
  protected:
    // Counts who complains of an image, and answers what the check does.
    std::string judge(const std::vector<uint8_t>& image, int Tool::*count) {
        MemoryDevice device(image);
        std::string own = check::complaints(device);
        const std::string file = directory_ / "image";
        writeFile(file, std::string(image.begin(), image.end()));
        for (Tool& tool : tools_) {
            const bool complains = tool.complains(file);
            tool.*count += complains ? 1 : 0;
            tool.alone += complains && own.empty() ? 1 : 0;
        }
        return own;
    }

    TempDirectory directory_;
    std::vector<Tool> tools_{{{"ntfsresize", "--info", "--force", "--no-progress-bar"}},
                             {{"ntfsfix", "-n"}},
                             {{"ntfsinfo", "--force", "--mft"}}};
};

// TAVELIN_AGREEMENT_RUNS asks for more.
TEST_F(Agreement, NoToolSeesWhatTheCheckDoesNot) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing changes the environment
    const char* const asked = std::getenv("TAVELIN_AGREEMENT_RUNS");
    const int runs = asked == nullptr ? 40 : std::stoi(asked);
    for (const VolumeGeometry& geometry :
         {VolumeGeometry{8u << 20, 512, 512}, VolumeGeometry{8u << 20, 4096, 512},
          VolumeGeometry{40u << 20, 65536, 512}, VolumeGeometry{32u << 20, 4096, 4096}}) {
        EXPECT_EQ(judge(filledImage(geometry, 80), &Tool::sound), "");
    }
    std::mt19937_64 random(1);
    int found = 0;
    for (int i = 0; i < runs; ++i) {
        std::vector<uint8_t> input(9); // one change
        for (uint8_t& byte : input) {
            byte = static_cast<uint8_t>(random());
        }
        found += judge(hostileImage(input), &Tool::damaged).empty() ? 0 : 1;
    }
    std::printf("of %d changes the check finds %d", runs, found);
    for (const Tool& tool : tools_) {
        std::printf(", %s %d (alone %d)", tool.command[0].c_str(), tool.damaged, tool.alone);
        EXPECT_EQ(tool.sound, 0) << tool.command[0];
        EXPECT_EQ(tool.alone, 0) << tool.command[0];
    }
    std::printf("\n");
    EXPECT_GT(found, runs / 10); // else the changes missed the structures
}

} // namespace
} // namespace tavelin::test
