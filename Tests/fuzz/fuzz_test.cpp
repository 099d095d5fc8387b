// The corpus of script/fuzz, each input in a process of its own, as the library may not survive it.
// What goes wrong in our code fails; what goes wrong in the library is printed, see
// docs/upstream.md.
#include "fuzz/child.hpp"
#include "fuzz/hostile_image.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

namespace tavelin::test {
namespace {

using Input = std::vector<std::uint8_t>;

// TAVELIN_FUZZ_INPUTS names another directory of inputs.
std::vector<Input> corpus() {
    const char* const other = std::getenv("TAVELIN_FUZZ_INPUTS"); // NOLINT(concurrency-mt-unsafe)
    std::set<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(other ? other : FUZZ_CORPUS)) {
        paths.insert(entry.path());
    }
    std::vector<Input> inputs;
    for (const auto& path : paths) {
        const std::string bytes = readFile(path);
        inputs.emplace_back(bytes.begin(), bytes.end());
    }
    return inputs;
}

std::string hex(const Input& input) {
    std::ostringstream text;
    for (const unsigned byte : input) {
        text << std::hex << std::setw(2) << std::setfill('0') << byte;
    }
    return text.str();
}

TEST(HostileImages, OfTheCorpusHurtNobody) {
    std::map<std::string, int> inLibrary;
    const std::vector<Input> inputs = corpus();
    for (const Input& input : inputs) {
        const ChildResult result = runInChild(input);
        if (result.end == ChildResult::End::inLibrary) {
            inLibrary[result.where]++;
        }
        EXPECT_NE(result.end, ChildResult::End::inOurs) << hex(input) << "\n" << result.report;
    }
    std::cout << inputs.size() << " inputs\n";
    for (const auto& [where, number] : inLibrary) {
        std::cout << number << " ended in the library, in " << where << "\n";
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
