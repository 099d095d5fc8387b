// What happens when the image cannot take what was promised, or the user stops half-way.
#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <csignal>

namespace tavelin::test {
namespace {

TEST(FailingImage, AFullVolumeKeepsWhatItHas) {
    const SampleVolume volume;
    const std::string image = volume.image();
    const TempDirectory host;
    std::filesystem::create_directory(host / "tree");
    writeFile(host / "tree/1 fits", "small");
    writeFile(host / "tree/2 does not", std::string(20 << 20, 'x'));
    writeFile(host / "tree/3 fits, too", "small");
    tavelinDone({"put", image, "-", "tree-of-old"}, "old");

    // It is left out before any of it is copied, and what is behind it is not.
    expectRefusal(tavelinRun({"put", image, host / "tree"}), kFailed, "20.0 MiB are needed");
    EXPECT_EQ(tavelinDone({"ls", "-a", image, "tree"}), "1 fits\n3 fits, too\n");
    expectRefusal(run({"sh", "-c", "head -c 20000000 /dev/zero | \"$@\"", "sh", TAVELIN_PROGRAM,
                       "put", image, "-", "endless"}),
                  kFailed, "volume is full");
    EXPECT_EQ(volume.cat("tree/1 fits"), "small");
    EXPECT_EQ(volume.cat("tree-of-old"), "old");
    volume.check();
    // The space of the half-written file is free again.
    tavelinDone({"put", image, "-", "big"}, std::string(8 << 20, 'y'));
}

// The limit on file sizes makes every write to the image fail, most of them not before the end.
TEST(FailingImage, AFailedFlushAtCloseIsAFailure) {
    const SampleVolume volume;
    const std::string before = readFile(volume.image());
    const ProcessResult result =
        run({"sh", "-c", "trap '' XFSZ; ulimit -f 0; exec \"$@\" 2>&1 | cat >&2", "sh",
             TAVELIN_PROGRAM, "mkdir", volume.image(), "new"});
    EXPECT_NE(result.err.find("not everything that was changed is on the image"), std::string::npos)
        << result.describe();
    const ProcessResult status = run({"sh", "-c", "trap '' XFSZ; ulimit -f 0; exec \"$@\"", "sh",
                                      TAVELIN_PROGRAM, "mkdir", volume.image(), "new"});
    EXPECT_EQ(status.status, kFailed);
    EXPECT_EQ(readFile(volume.image()), before);
}

TEST(FailingImage, AnImageInUseIsLeftAlone) {
    const SampleVolume volume;
    RunningTavelin writer({"put", volume.image(), "-", "file"});
    writer.write(std::string(2 << 20, 'x')); // more than a pipe holds: it has the image open
    expectRefusal(tavelinRun({"mkdir", volume.image(), "new"}), kFailed, "(tavelin) has it open");
    EXPECT_EQ(writer.finish().status, 0);
    EXPECT_EQ(volume.list(), std::vector<std::string>{"file"});
}

TEST(FailingImage, AnInterruptedPutLeavesNoHalfFile) {
    const SampleVolume volume;
    tavelinDone({"put", volume.image(), "-", "file"}, "old");
    RunningTavelin writer({"put", "--replace", volume.image(), "-", "file"});
    writer.write(std::string(3 << 20, 'x'));
    writer.signal(SIGINT);
    // It ends by the signal, so that a shell's loop ends, too.
    expectRefusal(writer.finish(), 128 + SIGINT, "interrupted");
    EXPECT_EQ(tavelinDone({"ls", "-a", volume.image()}), "file\n");
    EXPECT_EQ(volume.cat("file"), "old");
    volume.check();
}

TEST(FailingImage, NohupKeepsAPutGoing) {
    const SampleVolume volume;
    const std::string content(3 << 20, 'x'); // more than a pipe holds: its writing has begun
    RunningProcess writer({"sh", "-c", "trap '' HUP; exec \"$@\"", "sh", TAVELIN_PROGRAM, "put",
                           volume.image(), "-", "file"});
    writer.write(content);
    writer.signal(SIGHUP);
    EXPECT_EQ(writer.finish().status, 0);
    EXPECT_EQ(volume.cat("file"), content);
}

TEST(FailingImage, OutputThatNobodyTakesIsAFailure) {
    const SampleVolume volume;
    tavelinDone({"put", volume.image(), "-", "file"}, std::string(1 << 20, 'x'));
    const ProcessResult result = run({"sh", "-c", "exec \"$@\" >/dev/full", "sh", TAVELIN_PROGRAM,
                                      "cat", volume.image(), "file"});
    expectRefusal(result, kFailed, "standard output");
}

} // namespace
} // namespace tavelin::test
