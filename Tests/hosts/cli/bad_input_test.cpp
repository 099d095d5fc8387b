// What a user gets wrong: told in one line that says what to do, and no byte of the image changed.
#include "tavelin_program.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <unistd.h>

namespace tavelin::test {
namespace {

using BadInput = CommandTest;

using Options = std::vector<std::string>;

constexpr int kWrongUsage = 2;

TEST_F(BadInput, ChangesNothingAndSaysWhatToDo) {
    const std::string tooLong(256, 'n');
    tavelinDone({"mkdir", "-p", image, "folder/below"});
    put({{"file", "content"}});
    const std::string before = readFile(image);

    const struct {
        Options words;
        int status;
        std::string hint;
    } kTable[] = {
        {{}, kWrongUsage, "--help"},
        {{"lss", image}, kWrongUsage, "did you mean 'ls'"},
        {{"mkdri", image}, kWrongUsage, "did you mean 'mkdir'"},
        {{"frobnicate", image}, kWrongUsage, "'tavelin --help'"},
        {{"cp", image, "a", "b"}, kWrongUsage, "'put' into it"},
        {{"xy", image}, kWrongUsage, "'tavelin --help'"},
        {{"find", "--type", "x", image}, kWrongUsage, "--type takes"},
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
        SCOPED_TRACE(fmt::format("{}", fmt::join(row.words, " ")));
        expectRefusal(tavelinRun(row.words), row.status, row.hint);
        ASSERT_EQ(readFile(image), before) << "the image has changed";
    }
}

/// The end of a run of a command on an image that is none.
ProcessResult runOn(const std::string& command, const std::string& image) {
    return command == "mkdir" ? tavelinRun({command, image, "new"}) : tavelinRun({command, image});
}

TEST_F(BadInput, ImagesThatAreNoneAreTold) {
    const std::string whole = readFile(image);
    const auto begins = [](const std::string& head) {
        return head + std::string((1 << 20) - head.size(), '\0');
    };
    const struct {
        std::string name;
        std::string bytes;
        std::string hint;
    } kTable[] = {
        {"zeroes", begins(""), "begins with zeros"},
        {"empty", "", "it is empty"},
        {"text", "Dear diary,\ntoday", "a text file"},
        {"qcow2", begins("QFI\xfb"), "qemu-img convert"},
        {"vhdx", begins("vhdxfile"), "a VHDX image"},
        {"gzip", begins("\x1f\x8b"), "gunzip"},
        {"exfat",
         begins("\xeb\x76\x90"
                "EXFAT   "),
         "not an NTFS volume"},
        {"cut-off", whole.substr(0, 100'000), "bytes are missing"},
        {"bitlocker", begins("\xeb\x58\x90-FVE-FS-"), "encrypted with BitLocker"},
        {"refs", begins(std::string("\0\0\0ReFS\0", 8)), "it holds ReFS"},
        // Formatted anew, with the copy of the old boot sector still at the end.
        {"refs-on-ntfs", std::string("\0\0\0ReFS\0", 8) + whole.substr(8), "it holds ReFS"},
        {"random", begins("\x01\x02\x03\xff"), "not an NTFS volume"},
    };
    for (const auto& row : kTable) {
        const std::string none = host / row.name;
        writeFile(none, row.bytes);
        for (const char* const command : {"ls", "mkdir", "info"}) {
            SCOPED_TRACE(command + (" " + row.name));
            expectRefusal(runOn(command, none), kFailed, row.hint);
        }
        EXPECT_EQ(readFile(none), row.bytes);
    }
    for (const char* const command : {"ls", "mkdir", "info"}) {
        SCOPED_TRACE(command);
        expectRefusal(runOn(command, host.path()), kFailed, "name an image file");
        expectRefusal(runOn(command, host / "missing"), kFailed, "check the path");
        expectRefusal(runOn(command, "/dev/null"), kFailed, "/dev/sdb1");
    }
    EXPECT_FALSE(std::filesystem::exists(host / "missing"));
}

/// Makes a disk with a partition for each of the images, the first from 1 MiB on.
void makeDisk(const std::string& disk, const std::string& table,
              const std::vector<std::string>& images) {
    const char* const type = table == "dos" ? "7" : "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
    std::string bytes(1 << 20, '\0');
    std::string script = "label: " + table + "\n";
    for (const std::string& image : images) {
        script += fmt::format("start={}, size={}, type={}\n", bytes.size() / 512,
                              image.size() / 512, type);
        bytes += image;
    }
    writeFile(disk, bytes + std::string(1 << 20, '\0')); // with room for a copy of the table
    ASSERT_TRUE(run({"sfdisk", "-q", disk}, script).ok());
}

TEST_F(BadInput, AWholeDiskStandsForItsNTFSPartition) {
    const std::string bytes = readFile(image);
    const std::string disk = host / "disk";
    const std::string other(1 << 20, 'x');
    for (const char* const table : {"dos", "gpt"}) {
        SCOPED_TRACE(table);
        makeDisk(disk, table, {other, bytes});
        const std::string head = readFile(disk).substr(0, 2 << 20);
        tavelinDone({"put", disk + ":2", "-", "file"}, "content");
        EXPECT_EQ(tavelinDone({"cat", disk, "file"}), "content");
        EXPECT_EQ(tavelinDone({"ls", "--offset", std::to_string(2 << 20), disk}), "file\n");
        EXPECT_EQ(tavelinItems({"info", disk}).at(0).at("partition"), 2);
        EXPECT_NE(tavelinDone({"probe", disk}).find("in partition 2"), std::string::npos);
        EXPECT_NE(tavelinDone({"check", disk}).find("nothing is wrong"), std::string::npos);
        EXPECT_EQ(readFile(disk).substr(0, 2 << 20), head);
        expectRefusal(tavelinRun({"ls", disk + ":1"}), kFailed, "text file");
        expectRefusal(tavelinRun({"ls", disk + ":3"}), kFailed, "no partition 3: it has 1 (1.0 M");
    }
    if (tavelinRun({"mount", "--help"}).ok()) { // where there is a FUSE host
        expectRefusal(tavelinRun({"mount", disk, host.path()}), kFailed, "p2 can be");
    }
    expectRefusal(tavelinRun({"ls", image + ":1"}), kFailed, "no partition table");
    makeDisk(disk, "dos", {bytes, bytes});
    expectRefusal(tavelinRun({"ls", disk}), kFailed, disk + ":1");
    EXPECT_EQ(tavelinDone({"ls", disk + ":1"}), "");
    makeDisk(disk, "dos", {other});
    expectRefusal(tavelinRun({"ls", disk}), kFailed, "without an NTFS partition: 1 (1.0 MiB)");
}

// The half that is there can be looked at; changing it would make things worse.
TEST_F(BadInput, AnImageThatWasCutOffIsOnlyRead) {
    volume.leaveUnchecked();
    put({{"file", "content"}});
    std::filesystem::resize_file(image, 9 << 20);
    const std::string before = readFile(image);

    const ProcessResult listing = tavelinRun({"ls", image});
    EXPECT_EQ(listing.status, 0);
    EXPECT_EQ(listing.out, "file\n");
    EXPECT_NE(listing.err.find("cut off"), std::string::npos) << listing.err;
    expectRefusal(tavelinRun({"mkdir", image, "new"}), kFailed, "cut off");
    EXPECT_EQ(readFile(image), before);
}

// NTFS has a copy of its first sector in the last one.
TEST_F(BadInput, AnImageWithoutItsFirstSectorIsOnlyRead) {
    volume.leaveUnchecked();
    put({{"file", "content"}});
    writeFile(image, std::string(512, '\0') + readFile(image).substr(512));
    const std::string before = readFile(image);
    for (const char* const command : {"ls", "info", "map", "undelete"}) {
        const ProcessResult result =
            tavelinRun({command, command == std::string("undelete") ? "--list" : "--json", image});
        EXPECT_EQ(result.status, 0) << result.describe();
        EXPECT_NE(result.err.find("its first sector is damaged"), std::string::npos) << result.err;
    }
    EXPECT_EQ(tavelinRun({"cat", image, "file"}).out, "content");
    expectRefusal(tavelinRun({"mkdir", image, "new"}), kFailed, "write the last 512 bytes");
    EXPECT_EQ(readFile(image), before);
}

TEST_F(BadInput, AHibernatedVolumeIsOnlyRead) {
    put({{"hiberfil.sys", "hibr" + std::string(8192, '\0')}});
    const std::string before = readFile(image);
    EXPECT_EQ(tavelinDone({"ls", image}), "hiberfil.sys\n");
    EXPECT_NE(tavelinDone({"info", image}).find("Windows is hibernated on it"), std::string::npos);
    expectRefusal(tavelinRun({"mkdir", image, "new"}), kFailed, "opened for reading only");
    expectRefusal(tavelinRun({"put", image, "/etc/hostname"}), kFailed, "hibernated");
    EXPECT_EQ(readFile(image), before);
}

// As somebody who may read the image at most. Root may do everything, so it becomes nobody.
TEST_F(BadInput, PermissionsOfTheHostHold) {
    using std::filesystem::perms;
    const bool isRoot = geteuid() == 0;
    const auto asNobody = [&](const Options& words) {
        return isRoot ? tavelinUnder("setpriv --reuid=65534 --regid=65534 --clear-groups \"$@\"",
                                     words)
                      : tavelinRun(words);
    };
    std::filesystem::permissions(volume.directory().path(), perms(0755));
    if (!asNobody({"--version"}).ok()) {
        GTEST_SKIP() << "nobody cannot run " << TAVELIN_PROGRAM;
    }
    const std::string before = readFile(image);
    std::filesystem::permissions(image, perms(0444));
    EXPECT_EQ(asNobody({"ls", image}).status, 0);
    expectRefusal(asNobody({"mkdir", image, "new"}), kFailed, "write-protected");
    std::filesystem::permissions(image, perms(0));
    expectRefusal(asNobody({"ls", image}), kFailed, "permission");
    std::filesystem::permissions(image, perms(0644));
    EXPECT_EQ(readFile(image), before);
}

// What a shell or a service manager may start a program with. The image must never become one of
// the descriptors that messages go to.
TEST_F(BadInput, TheStartingProgramLeftDescriptorsClosed) {
    const std::string before = readFile(image);
    const struct {
        Options words;
        std::string closed;
        int status;
    } kTable[] = {
        {{"put", image, "/nowhere/at/all"}, "2>&-", kFailed},
        {{"put", image, "/nowhere/at/all"}, "2>&- <&- >&-", kFailed},
        {{"info", image}, ">&-", kFailed},
        {{"info", image}, ">&- 2>&-", kFailed},
        {{"ls", image}, "<&-", 0},
    };
    for (const auto& row : kTable) {
        const ProcessResult result = tavelinUnder("exec \"$@\" " + row.closed, row.words);
        EXPECT_EQ(result.status, row.status) << row.closed << ": " << result.describe();
        EXPECT_TRUE(readFile(image) == before) << row.closed;
    }
}

} // namespace
} // namespace tavelin::test
