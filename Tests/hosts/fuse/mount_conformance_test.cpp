// What POSIX system calls do on a mount with `permissions`, script by script, compared with tmpfs.
//
// Left out because POSIX leaves them open: inode numbers, sizes and link counts of directories,
// access times.
#include "hosts/fuse/scripts.hpp"
#include "hosts/fuse/served_volume.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fnmatch.h>
#include <map>
#include <sys/mount.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

// Who gets as far as the volume, where it is the directory that decides.
#define MAY_CHANGE "@(*, root|*, owner's, *, owner|*, closed, *, owner)"
#define MAY_MAKE                                                                                   \
    "@(*, root|*, owner's, *, owner|*, open, *|*, sticky, *|*, handing on, *|*, foreign, *)"

// Scripts, as a pattern of their names, in which this file system is known to differ. Each has to.
const struct {
    const char* scripts;
    const char* reason;
} kDifferences[] = {
    {"*: create 128 umlauts", "255 UTF-16 units are a name, not 255 bytes"},
    {"*: create @(what is no text|255 bytes that are no text)",
     "names are kept in UTF-16, and have to be UTF-8"},
    {MAY_MAKE ": create without a name", "libfuse 3.14 does not pass O_TMPFILE on"},
    {MAY_MAKE ": symlink to 2044 characters",
     "that is one more than other drivers take for a link"},
    {MAY_CHANGE ": utimensat before 1601", "the first year that NTFS knows"},
    {MAY_CHANGE ": utimensat to a nanosecond", "NTFS counts in steps of 100"},
    {"removed directory, *: held @(chmod|setxattr)",
     "of a directory that is gone nothing is kept, so nothing is changed"},
    {"@(file|hard link|fifo|device|open), *, 2745, other: chown nothing",
     "the kernel's FUSE leaves a set-group-ID bit alone where the group may not execute"},
};

// One in so many of all, spread over the product, and those that are known to differ: what every
// run of the tests takes.
constexpr size_t kSinglesShare = 11, kPairsShare = 83;

bool isMatch(const char* pattern, const std::string& name) {
    return ::fnmatch(pattern, name.c_str(), FNM_EXTMATCH) == 0;
}

const auto* differenceOf(const std::string& name) {
    return std::ranges::find_if(kDifferences,
                                [&](const auto& row) { return isMatch(row.scripts, name); });
}
bool isKnownToDiffer(const std::string& name) {
    return differenceOf(name) != std::end(kDifferences);
}

// TAVELIN_SEQUENCES: "*" for all, or another pattern of names; without it a share.
const char* wantedScripts() {
    return std::getenv("TAVELIN_SEQUENCES");
}

std::vector<Script> chosenScripts() {
    const char* const wanted = wantedScripts();
    std::vector<Script> scripts = allScripts();
    size_t index = 0;
    std::erase_if(scripts, [&](const Script& script) {
        ++index;
        if (wanted == nullptr) {
            return index % (script.isSingle() ? kSinglesShare : kPairsShare) != 0 &&
                   !(script.isSingle() && isKnownToDiffer(script.name()));
        }
        return !isMatch(wanted, script.name());
    });
    return scripts;
}

class MountConformance : public MountTest {
  protected:
    static std::vector<ScriptOutcome> outcomesOnTmpfs(std::span<const Script> scripts) {
        const TempDirectory memory;
        EXPECT_EQ(::mount("tmpfs", memory.path().c_str(), "tmpfs", 0, "mode=0755"), 0);
        std::vector<ScriptOutcome> outcomes = outcomesOf(scripts, memory.path());
        EXPECT_EQ(::umount2(memory.path().c_str(), MNT_DETACH), 0);
        return outcomes;
    }
    std::vector<ScriptOutcome> outcomesHere(std::span<const Script> scripts) {
        mountFresh(256 * kMiB, "permissions,dev,suid");
        EXPECT_EQ(::chmod(served_->directory().c_str(), 0755), 0);
        std::vector<ScriptOutcome> outcomes = outcomesOf(scripts, served_->directory());
        mount("permissions");
        const std::vector<std::string> left = treesLeft(outcomes.size(), served_->directory());
        for (size_t i = 0; i < outcomes.size(); ++i) {
            EXPECT_EQ(left[i], outcomes[i].tree) << scripts[i].name() << ", in a second mount";
        }
        return outcomes;
    }
    void compare(const Script& script, const ScriptOutcome& expected, const ScriptOutcome& seen) {
        const std::string name = script.name();
        const auto* const known = differenceOf(name);
        if (known != std::end(kDifferences)) {
            EXPECT_FALSE(seen == expected) << name << " is no different now: " << known->reason;
            ++used_[known->scripts];
        } else {
            EXPECT_TRUE(seen == expected)
                << fmt::format("{0}\n  tmpfs: {1}{2}\n  here:  {3}{4}\n  script/sequences '{0}'",
                               name, expected.answers, expected.tree, seen.answers, seen.tree);
        }
    }

    std::map<std::string, size_t> used_; // by pattern
};

TEST_F(MountConformance, IsThatOfTmpfs) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "several users take root";
    }
    constexpr size_t kScriptsOnAVolume = 3000;
    const auto start = std::chrono::steady_clock::now();
    const std::vector<Script> all = chosenScripts();
    for (size_t done = 0; done < all.size(); done += kScriptsOnAVolume) {
        const std::span<const Script> scripts =
            std::span(all).subspan(done, std::min(kScriptsOnAVolume, all.size() - done));
        const std::vector<ScriptOutcome> expected = outcomesOnTmpfs(scripts);
        const std::vector<ScriptOutcome> seen = outcomesHere(scripts);
        ASSERT_EQ(seen.size(), expected.size());
        for (size_t i = 0; i < scripts.size(); ++i) {
            compare(scripts[i], expected[i], seen[i]);
        }
    }
    const auto operations = std::ranges::count_if(all, &Script::isSingle);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const char* const pattern = wantedScripts();
    const bool isWhole = pattern == nullptr || std::string_view(pattern) == "*";
    fmt::print("scripts            {}, {} of them with one operation\n", all.size(), operations);
    for (const auto& difference : kDifferences) {
        fmt::print("allowed to differ  {:5}  {}\n", used_[difference.scripts], difference.reason);
        EXPECT_TRUE(used_[difference.scripts] != 0 || !isWhole)
            << difference.scripts << ": there is no such script";
    }
    fmt::print("seconds            {:.0f}\n", seconds.count());
}

} // namespace
} // namespace tavelin::test
