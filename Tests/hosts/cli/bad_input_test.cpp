// What a user gets wrong: told in one line that says what to do, and no byte of the image changed.
#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tavelin::test {
namespace {

using Options = std::vector<std::string>;

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

TEST(BadInput, ChangesNothingAndSaysWhatToDo) {
    const SampleVolume volume;
    const std::string image = volume.image();
    const std::string tooLong(256, 'n');
    tavelinDone({"mkdir", "-p", image, "folder/below"});
    tavelinDone({"put", image, "-", "file"}, "content");
    const std::string before = readFile(image);

    const struct {
        Options words;
        int status;
        std::string hint;
    } kTable[] = {
        {{}, kWrongUsage, "--help"},
        {{"lss", image}, kWrongUsage, "did you mean 'ls'"},
        {{"frobnicate", image}, kWrongUsage, "'tavelin --help'"},
        {{"ls"}, kWrongUsage, "IMAGE is required"},
        {{"cat", image}, kWrongUsage, "PATH is required"},
        {{"mv", image, "file"}, kWrongUsage, "'tavelin mv --help'"},
        {{"ls", "--bogus", image}, kWrongUsage, "--bogus"},
        {{"mkdir", "-o", "raedonly", image, "new"}, kWrongUsage, "no volume option \"raedonly\""},
        {{"probe", "-o", "ro,bogus", image}, kWrongUsage, "bogus"},
        {{"check", "-o", "bogus", image}, kWrongUsage, "bogus"},
        {{"ln", image, "file", "link"}, kWrongUsage, "ln -s"},
        {{"xattr", "steal", image, "file"}, kWrongUsage, "steal"},
        {{"xattr", "get", image, "file"}, kWrongUsage, "NAME"},
        {{"label", image, ""}, kWrongUsage, "label"},
        {{"put", image, "-"}, kWrongUsage, "name the file"},

        {{"cat", image, "nowhere"}, kFailed, "nowhere: No such file"},
        {{"cat", image, "folder"}, kFailed, "Is a directory"},
        {{"ls", image, "bad\nname"}, kFailed, "bad\\nname"},
        {{"mkdir", image, "no/where"}, kFailed, "mkdir -p"}, // a name cannot have a slash
        {{"mkdir", image, tooLong}, kFailed, "255"},
        {{"mkdir", image, "folder"}, kFailed, "exists"},
        {{"mkdir", "-p", image, "file/below"}, kFailed, "file: Not a directory"},
        {{"mkdir", image, "caf\xe9"}, kFailed, "caf\\xe9"},
        {{"mkdir", "-o", "windows_names", image, "a:b"}, kFailed, "windows_names"},
        {{"mkdir", "--read-only", image, "new"}, kFailed, "leave out --read-only"},
        {{"rm", "-o", "ro", image, "file"}, kFailed, "-o ro"},
        {{"rm", "-rf", image, "/"}, kFailed, "root directory"},
        {{"rm", "-rf", image, "folder/.."}, kFailed, "root directory"},
        {{"rm", image, "folder"}, kFailed, "rm -r"},
        {{"rm", image, "nowhere"}, kFailed, "No such file"},
        {{"mv", image, "folder", "folder/below/again"}, kFailed, "into itself"},
        {{"mv", image, "folder", "folder"}, kFailed, "there already"},
        {{"mv", image, "/", "folder"}, kFailed, "root directory"},
        {{"mv", image, "nowhere", "folder"}, kFailed, "nowhere"},
        {{"mv", image, "folder", "file"}, kFailed, "file: "},
        {{"mv", image, "file", "folder", "nowhere"}, kFailed, "nowhere"},
        {{"xattr", "get", image, "file", "none"}, kFailed, "xattr list"},
        {{"xattr", "rm", image, "file", "none"}, kFailed, "xattr list"},
        {{"label", image, std::string(129, 'L')}, kFailed, "128"},
        {{"readlink", image, "file"}, kFailed, "not a symbolic link"},
        {{"check", "-y", image}, kFailed, "chkdsk /f"},
        {{"put", image, "/nowhere/at/all"}, kFailed, "/nowhere/at/all"},
        {{"put", image, "/dev/null"}, kFailed, "left out"},
        {{"put", image, "/etc/hostname", "/etc/hostname", "file"}, kFailed, "no such directory"},
        {{"get", image, "file", "/nowhere/at/all"}, kFailed, "/nowhere"},
        {{"get", image, "nowhere", "/tmp"}, kFailed, "nowhere"},
    };
    for (const auto& row : kTable) {
        std::string words = "tavelin";
        for (const std::string& word : row.words) {
            words += " " + word;
        }
        SCOPED_TRACE(words);
        expectRefusal(tavelinRun(row.words), row.status, row.hint);
        ASSERT_EQ(readFile(image), before) << "the image has changed";
    }
}

TEST(BadInput, ImagesThatAreNone) {
    const SampleVolume volume;
    const TempDirectory& directory = volume.directory();
    const std::string zeroes = directory / "zeroes";
    const std::string empty = directory / "empty";
    const std::string cutOff = directory / "cut-off";
    writeFile(zeroes, std::string(1 << 20, '\0'));
    writeFile(empty, "");
    writeFile(cutOff, readFile(volume.image()).substr(0, 100'000));

    for (const Options& command : {Options{"ls"}, Options{"mkdir"}, Options{"info"}}) {
        const auto run = [&](const std::string& image) {
            Options words{command.front(), image};
            if (command.front() == "mkdir") {
                words.push_back("new");
            }
            SCOPED_TRACE(command.front() + " " + image);
            return tavelinRun(words);
        };
        expectRefusal(run(zeroes), kFailed, "not an NTFS volume");
        expectRefusal(run(empty), kFailed, "not an NTFS volume");
        expectRefusal(run(cutOff), kFailed, "is the image complete?");
        expectRefusal(run(directory.path()), kFailed, "name an image file");
        expectRefusal(run(directory / "missing"), kFailed, "check the path");
        expectRefusal(run("/dev/null"), kFailed, "/dev/sdb1");
    }
    EXPECT_EQ(readFile(zeroes), std::string(1 << 20, '\0'));
    EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
}

// The half that is there can be looked at; changing it would make things worse.
TEST(BadInput, AnImageThatWasCutOffIsOnlyRead) {
    const SampleVolume volume;
    volume.leaveUnchecked();
    tavelinDone({"put", volume.image(), "-", "file"}, "content");
    std::filesystem::resize_file(volume.image(), 9 << 20);
    const std::string before = readFile(volume.image());

    const ProcessResult listing = tavelinRun({"ls", volume.image()});
    EXPECT_EQ(listing.status, 0);
    EXPECT_EQ(listing.out, "file\n");
    EXPECT_NE(listing.err.find("cut off"), std::string::npos) << listing.err;
    expectRefusal(tavelinRun({"mkdir", volume.image(), "new"}), kFailed, "cut off");
    EXPECT_EQ(readFile(volume.image()), before);
}

TEST(BadInput, AHibernatedVolumeIsOnlyRead) {
    const SampleVolume volume;
    const std::string image = volume.image();
    tavelinDone({"put", image, "-", "hiberfil.sys"}, "hibr" + std::string(8192, '\0'));
    const std::string before = readFile(image);
    EXPECT_EQ(tavelinDone({"ls", image}), "hiberfil.sys\n");
    expectRefusal(tavelinRun({"mkdir", image, "new"}), kFailed, "opened for reading only");
    expectRefusal(tavelinRun({"put", image, "/etc/hostname"}), kFailed, "hibernated");
    EXPECT_EQ(readFile(image), before);
}

// As somebody who may read the image at most. Root may do everything, so it becomes nobody.
TEST(BadInput, PermissionsOfTheHostHold) {
    const SampleVolume volume;
    const std::string image = volume.image();
    Options nobody;
    if (geteuid() == 0) {
        std::filesystem::permissions(volume.directory().path(), std::filesystem::perms(0755));
        nobody = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }
    const auto asNobody = [&](const Options& words) {
        Options all = nobody;
        all.push_back(TAVELIN_PROGRAM);
        all.insert(all.end(), words.begin(), words.end());
        return run(all);
    };
    if (!nobody.empty() && !asNobody({"--version"}).ok()) {
        GTEST_SKIP() << "nobody cannot run " << TAVELIN_PROGRAM;
    }
    const std::string before = readFile(image);

    std::filesystem::permissions(image, std::filesystem::perms(0444));
    EXPECT_EQ(asNobody({"ls", image}).status, 0);
    expectRefusal(asNobody({"mkdir", image, "new"}), kFailed, "write-protected");
    std::filesystem::permissions(image, std::filesystem::perms(0));
    expectRefusal(asNobody({"ls", image}), kFailed, "permission");
    std::filesystem::permissions(image, std::filesystem::perms(0644));
    EXPECT_EQ(readFile(image), before);
}

// What a shell or a service manager may start a program with. The image must never become one of
// the descriptors that messages go to, and a limit is an error like any other.
TEST(BadInput, TheStartingProgramLeftDescriptorsClosedOrSetLimits) {
    const SampleVolume volume;
    const std::string image = volume.image();
    const std::string big = volume.directory() / "big";
    writeFile(big, std::string(8 << 20, 'b'));
    const std::string before = readFile(image);
    const struct {
        std::string shell;
        int status;
    } kTable[] = {
        {"put \"$1\" /nowhere/at/all 2>&-", kFailed},
        {"put \"$1\" /nowhere/at/all 2>&- <&- >&-", kFailed},
        {"info \"$1\" >&-", kFailed},
        {"info \"$1\" >&- 2>&-", kFailed},
        {"ls \"$1\" <&-", 0},
    };
    for (const auto& row : kTable) {
        const ProcessResult result =
            run({"sh", "-c", "\"$0\" " + row.shell, TAVELIN_PROGRAM, image});
        EXPECT_EQ(result.status, row.status) << row.shell << ": " << result.describe();
        EXPECT_TRUE(readFile(image) == before) << row.shell;
    }
    expectRefusal(run({"bash", "-c", "ulimit -f 1024; \"$0\" put \"$1\" \"$2\"", TAVELIN_PROGRAM,
                       image, big}),
                  kFailed, "too large");
    EXPECT_NO_THROW(volume.check());
}

} // namespace
} // namespace tavelin::test
