// Directories under concurrent change: removed while others create in them, and worked in by many.
#include "hosts/fuse/served_volume.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountDirectories : public MountTest {
  protected:
    MountDirectories() : MountTest(256 * kMiB) {}

    void fill(const std::string& directory, int files) {
        fs::create_directory(*this / directory);
        for (int i = 0; i < files; ++i) {
            writeFile(*this / directory / ("file" + std::to_string(i)), "");
        }
    }

    // Runs `change` up to `times` in a process of its own while `work` runs.
    static void whileRepeating(int times, const std::function<void(int)>& change,
                               const std::function<void()>& work) {
        const pid_t other = ::fork();
        ASSERT_NE(other, -1);
        if (other == 0) {
            for (int i = 0; i < times; ++i) {
                change(i);
            }
            ::_exit(0);
        }
        work();
        ::kill(other, SIGKILL);
        ::waitpid(other, nullptr, 0);
    }
};

TEST_F(MountDirectories, LargeDirectoriesAreRemovedWhileOthersCreateInThem) {
    for (const bool byFind : {false, true}) {
        fill("folder", 6'000); // several times what one call of getdents(2) answers
        const std::string directory = path("folder");
        const std::vector<std::string> remove{"env", "LC_ALL=C", "rm", "-rf", directory};
        const std::vector<std::string> find{"find",  directory, "-type",  "f",
                                            "-name", "file*",   "-delete"};
        const auto change = [&](int i) {
            ::close(::open((directory + "/late" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT,
                           0666));
        };
        // Few enough to end: rm -rf gives up when a directory never gets empty.
        whileRepeating(500, change, [&] {
            const ProcessResult result = run(byFind ? find : remove);
            EXPECT_TRUE(result.ok() || result.err == "rm: cannot remove '" + directory +
                                                         "': Directory not empty\n")
                << result.describe();
        });
        for (const std::string& name : fs::exists(directory) ? names("folder") : Names()) {
            EXPECT_TRUE(name.starts_with("late")) << name;
        }
        expectToLast(*volume_, served_);
        EXPECT_TRUE(run({"rm", "-rf", path("folder")}).ok());
        EXPECT_FALSE(fs::exists(directory));
    }
}

TEST_F(MountDirectories, ManyProcessesCreateAndRemoveSideBySide) {
    constexpr int kProcesses = 8, kRounds = 30, kFiles = 12;
    fs::create_directory(*this / "shared");
    std::vector<pid_t> children;
    for (int worker = 0; worker < kProcesses; ++worker) {
        const pid_t child = ::fork();
        if (child != 0) {
            children.push_back(child);
            continue;
        }
        int failures = 0;
        for (int round = 0; round < kRounds; ++round) {
            const std::string own = path("own" + std::to_string(worker));
            failures += ::mkdir(own.c_str(), 0777) != 0;
            for (int i = 0; i < kFiles; ++i) {
                const std::string name = "/w" + std::to_string(worker) + "f" + std::to_string(i);
                const std::string content = name + std::to_string(round);
                try {
                    writeFile(own + name + ".tmp", content);
                    fs::rename(own + name + ".tmp", own + name + ".o");
                    writeFile(path("shared" + name), content);
                    failures += readFile(own + name + ".o") != content;
                    failures += readFile(path("shared" + name)) != content;
                    fs::remove(own + name + ".o");
                    if (round + 1 < kRounds) {
                        fs::remove(path("shared" + name));
                    }
                } catch (const std::exception&) {
                    ++failures;
                }
            }
            failures += ::rmdir(own.c_str()) != 0;
        }
        ::_exit(std::min(failures, 255));
    }
    for (const pid_t child : children) {
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 0) << "failures in one process";
    }
    EXPECT_EQ(names("shared").size(), size_t{kProcesses} * kFiles);
    expectToLast(*volume_, served_);
}

} // namespace
} // namespace tavelin::test
