// Real programs on a mount, and what they leave behind.
#include "hosts/fuse/served_volume.hpp"
#include "hosts/tree.hpp"
#include "support/run_process.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

class MountPrograms : public MountTest {
  protected:
    MountPrograms() : MountTest(384 * kMiB) {}

    TempDirectory outside_;
};

TEST_F(MountPrograms, CopiesComeBackAsTheyWere) {
    const fs::path source = outside_ / "source";
    makeTree(source, 2500);
    const Tree expected = readTree(source);

    runOrThrow({"cp", "-a", source, path("by cp")});
    runOrThrow({"rsync", "-aX", "--checksum", source.string() + "/", path("by rsync")});
    EXPECT_EQ(firstDifference(expected, readTree(*this / "by cp")), "");
    EXPECT_EQ(firstDifference(expected, readTree(*this / "by rsync")), "");
    // Nothing is left to transfer but permissions, which NTFS does not keep.
    EXPECT_EQ(runOrThrow({"rsync", "-rltX", "--checksum", "--itemize-changes",
                          source.string() + "/", path("by rsync")}),
              "");

    mount();
    runOrThrow({"cp", "-a", path("by cp"), outside_ / "back by cp"});
    runOrThrow({"rsync", "-aX", "--checksum", path("by rsync") + "/", outside_ / "back by rsync"});
    EXPECT_EQ(firstDifference(expected, readTree(outside_ / "back by cp")), "");
    EXPECT_EQ(firstDifference(expected, readTree(outside_ / "back by rsync")), "");
    expectToLast(*volume_, served_);
}

// A compiler writes a program in pieces, and the kernel maps it to run it.
TEST_F(MountPrograms, ACompilersProgramsRun) {
    if (!run({"cc", "--version"}).ok()) {
        GTEST_SKIP() << "there is no compiler";
    }
    for (const char* options : {"", "permissions", "umask=022"}) {
        mount(options);
        fs::create_directories(*this / "build");
        writeFile(*this / "build/part.c", "int part(void) { return 42; }\n");
        writeFile(*this / "build/main.c", "#include <stdio.h>\nint part(void);\n"
                                          "int main(void) { printf(\"%d\", part()); }\n");
        const std::string in = path("build/");
        runOrThrow({"cc", "-shared", "-fPIC", "-o", in + "libpart.so", in + "part.c"});
        runOrThrow({"cc", "-o", in + "program", in + "main.c", in + "libpart.so"});
        EXPECT_EQ(runOrThrow({in + "program"}), "42");
        fs::remove_all(*this / "build");
    }
}

// With owners and modes kept, a repository is what it is on any file system of Linux.
TEST_F(MountPrograms, GitKeepsModesHooksAndLinks) {
    mount("permissions");
    const std::string script = R"(set -eu
export GIT_CONFIG_GLOBAL=/dev/null GIT_AUTHOR_NAME=T GIT_AUTHOR_EMAIL=t@example.org
export GIT_COMMITTER_NAME=T GIT_COMMITTER_EMAIL=t@example.org
git init -q "$1/origin"
cd "$1/origin"
printf '#!/bin/sh\necho ran\n' > run.sh
chmod 755 run.sh
echo text > plain
ln -s run.sh link
git add -A
git commit -qm Start
git clone -q --no-hardlinks "$1/origin" "$2/clone"
cd "$2/clone"
git config core.fileMode
git config core.symlinks || echo true
./run.sh
./link
printf '#!/bin/sh\necho hook >&2\nexit 1\n' > .git/hooks/pre-commit
chmod +x .git/hooks/pre-commit
echo more > plain
git commit -qam Refused 2>&1 || echo refused
chmod -x .git/hooks/pre-commit run.sh
git diff --summary
git commit -qam Changed 2>/dev/null
git gc -q --prune=now
git status --porcelain
)";
    EXPECT_EQ(runOrThrow({"bash", "-c", script, "script", outside_.path(), served_->directory()}),
              "true\ntrue\nran\nran\nhook\nrefused\n mode change 100755 => 100644 run.sh\n");
    mount("permissions");
    const auto git = [&](const std::string& command) {
        return runOrThrow(
            {"bash", "-c", "git -c safe.directory='*' -C \"$0\" " + command, path("clone")});
    };
    EXPECT_EQ(git("status --porcelain"), "");
    git("fsck --strict");
}

} // namespace
} // namespace tavelin::test
