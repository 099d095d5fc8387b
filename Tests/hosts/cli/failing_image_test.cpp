// What happens when the image cannot take what was promised, or the user stops half-way.
#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <csignal>

namespace tavelin::test {
namespace {

using FailingImage = CommandTest;

TEST_F(FailingImage, AFullVolumeKeepsWhatItHas) {
    std::filesystem::create_directory(host / "tree");
    writeFile(host / "tree/1 fits", "small");
    writeFile(host / "tree/2 does not", std::string(20 << 20, 'x'));
    writeFile(host / "tree/3 fits, too", "small");
    put({{"tree-of-old", "old"}});

    // It is left out before any of it is copied, and what is behind it is not.
    expectRefusal(tavelinRun({"put", image, host / "tree"}), kFailed, "20.0 MiB are needed");
    EXPECT_EQ(tavelinDone({"ls", "-a", image, "tree"}), "1 fits\n3 fits, too\n");
    expectRefusal(
        tavelinUnder("head -c 20000000 /dev/zero | \"$@\"", {"put", image, "-", "endless"}),
        kFailed, "volume is full");
    EXPECT_EQ(volume.cat("tree/1 fits"), "small");
    EXPECT_EQ(volume.cat("tree-of-old"), "old");
    // The space of the half-written file is free again.
    put({{"big", std::string(8 << 20, 'y')}});
}

// The limit on file sizes makes every write to the image fail, most of them not before the end.
TEST_F(FailingImage, AFailedFlushAtCloseIsAFailure) {
    const std::string limit = "trap '' XFSZ; ulimit -f 0; exec \"$@\"";
    const std::string before = readFile(image);
    // A limit on files holds for the file of the messages, too, but not for a pipe.
    EXPECT_NE(tavelinUnder(limit + " 2>&1 | cat >&2", {"mkdir", image, "new"})
                  .err.find("not everything that was changed is on the image"),
              std::string::npos);
    EXPECT_EQ(tavelinUnder(limit, {"mkdir", image, "new"}).status, kFailed);
    EXPECT_EQ(readFile(image), before);
    writeFile(host / "big", std::string(8 << 20, 'b'));
    expectRefusal(tavelinUnder("ulimit -f 2048; \"$@\"", {"put", image, host / "big"}), kFailed,
                  "too large");
}

TEST_F(FailingImage, AnInterruptedPutLeavesNoHalfFile) {
    put({{"file", "old"}});
    RunningTavelin writer({"put", "--replace", image, "-", "file"});
    writer.write(std::string(3 << 20, 'x'));
    writer.signal(SIGINT);
    // It ends by the signal, so that a shell's loop ends, too.
    expectRefusal(writer.finish(), 128 + SIGINT, "interrupted");
    EXPECT_EQ(tavelinDone({"ls", "-a", image}), "file\n");
    EXPECT_EQ(volume.cat("file"), "old");
}

TEST_F(FailingImage, NohupKeepsAPutGoing) {
    const std::string content(3 << 20, 'x'); // more than a pipe holds: its writing has begun
    RunningProcess writer(
        {"sh", "-c", "trap '' HUP; exec \"$@\"", "sh", TAVELIN_PROGRAM, "put", image, "-", "file"});
    writer.write(content);
    writer.signal(SIGHUP);
    EXPECT_EQ(writer.finish().status, 0);
    EXPECT_EQ(volume.cat("file"), content);
}

TEST_F(FailingImage, OutputThatNobodyTakesIsAFailure) {
    put({{"file", std::string(1 << 20, 'x')}});
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"cat", image, "file"}, {"find", "--json", image, "none"}}) {
        expectRefusal(tavelinUnder("exec \"$@\" >/dev/full", words), kFailed, "standard output");
    }
}

} // namespace
} // namespace tavelin::test
