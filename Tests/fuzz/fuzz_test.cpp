// The corpus of script/fuzz, each input in a process of its own, as the library may not survive it.
// What goes wrong in our code fails; what goes wrong in the library is printed, see
// docs/upstream.md.
#include "fuzz/child.hpp"
#include "fuzz/hostile_image.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>

namespace tavelin::test {
namespace {

using Input = std::vector<std::uint8_t>;

std::vector<Input> corpus() {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_CORPUS)) {
        paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    std::vector<Input> inputs;
    for (const auto& path : paths) {
        std::ifstream file(path, std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return inputs;
}

class HostileImages : public ::testing::Test {
  protected:
    void tryOne(const Input& input) {
        const ChildResult result = runInChild(input);
        count_++;
        if (result.end == ChildResult::End::inLibrary) {
            inLibrary_[result.where]++;
        }
        EXPECT_NE(result.end, ChildResult::End::inOurs) << hex(input) << "\n" << result.report;
    }

    ~HostileImages() override {
        std::cout << count_ << " inputs\n";
        for (const auto& [where, number] : inLibrary_) {
            std::cout << number << " ended in the library, in " << where << "\n";
        }
    }

  private:
    static std::string hex(const Input& input) {
        std::string text;
        for (const std::uint8_t byte : input) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

    int count_ = 0;
    std::map<std::string, int> inLibrary_;
};

TEST_F(HostileImages, OfTheCorpusHurtNobody) {
    const auto inputs = corpus();
    ASSERT_FALSE(inputs.empty());
    for (const Input& input : inputs) {
        tryOne(input);
    }
}

// What decides whose fault it is must itself see ours.
TEST(HostileImagesJudge, SeesAFaultOfOurs) {
    EXPECT_EQ(runInChild({}).end, ChildResult::End::well);
    const auto faultOf = [](const std::string& report) { return culpritOf(report).end; };
    EXPECT_EQ(faultOf("SUMMARY\n    #0 0x1 in __asan_memcpy (/b/fuzz_test+0x1)\n"
                      "    #1 0x2 in ntfs_attr_pread (/lib/libntfs-3g.so.89+0x2)\n"
                      "    #2 0x3 in ntb_read (/b/fuzz_test+0x3)\n"),
              ChildResult::End::inLibrary);
    EXPECT_EQ(faultOf("    #0 0x1 in ntb_read (/b/fuzz_test+0x3)\n"
                      "    #1 0x2 in ntfs_readdir (/lib/libntfs-3g.so.89+0x2)\n"),
              ChildResult::End::inOurs);
    EXPECT_EQ(faultOf("/lib/libc.so.6(+0x3c)[0x7f]\n/lib/libntfs-3g.so.89(+0x1)[0x7f]\n"),
              ChildResult::End::inLibrary);
    EXPECT_EQ(faultOf("tavelin: stopped"), ChildResult::End::inOurs);
}

} // namespace
} // namespace tavelin::test
