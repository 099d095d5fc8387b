// What a user gets wrong: told in one line that says what to do, and no byte of the image changed.
#include "tavelin_program.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

namespace tavelin::test {
namespace {

using Options = std::vector<std::string>;

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
        std::string words = "tavelin";
        for (const std::string& word : row.words) {
            words += " " + word;
        }
        SCOPED_TRACE(words);
        expectRefusal(tavelinRun(row.words), row.status, row.hint);
        ASSERT_EQ(readFile(image), before) << "the image has changed";
    }
}

/// The end of a run of a command on an image that is none.
ProcessResult runOn(const std::string& command, const std::string& image) {
    return command == "mkdir" ? tavelinRun({command, image, "new"}) : tavelinRun({command, image});
}

TEST(BadInput, ImagesThatAreNoneAreTold) {
    const SampleVolume volume;
    const TempDirectory& directory = volume.directory();
    const std::string whole = readFile(volume.image());
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
        {"no-boot-sector", std::string(512, '\0') + whole.substr(512), "last sector is whole"},
        {"random", begins("\x01\x02\x03\xff"), "not an NTFS volume"},
    };
    for (const auto& row : kTable) {
        const std::string image = directory / row.name;
        writeFile(image, row.bytes);
        for (const char* const command : {"ls", "mkdir", "info"}) {
            SCOPED_TRACE(command + (" " + row.name));
            expectRefusal(runOn(command, image), kFailed, row.hint);
        }
        EXPECT_EQ(readFile(image), row.bytes);
    }
    for (const char* const command : {"ls", "mkdir", "info"}) {
        SCOPED_TRACE(command);
        expectRefusal(runOn(command, directory.path()), kFailed, "name an image file");
        expectRefusal(runOn(command, directory / "missing"), kFailed, "check the path");
        expectRefusal(runOn(command, "/dev/null"), kFailed, "/dev/sdb1");
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "missing"));
}

/// A disk with an MBR: `images` one after the other, from 1 MiB on.
std::string diskOf(const std::vector<std::string>& images) {
    std::string disk(1 << 20, '\0');
    disk[510] = '\x55';
    disk[511] = '\xaa';
    const auto put32 = [&](std::size_t at, std::uint64_t value) {
        for (int i = 0; i < 4; ++i) {
            disk[at + static_cast<std::size_t>(i)] = static_cast<char>(value >> (8 * i));
        }
    };
    for (std::size_t i = 0; i < images.size(); ++i) {
        const std::size_t entry = 446 + 16 * i;
        disk[entry + 4] = '\x07'; // the type that NTFS partitions have
        put32(entry + 8, disk.size() / 512);
        put32(entry + 12, images[i].size() / 512);
        disk += images[i];
    }
    return disk;
}

TEST(BadInput, AWholeDiskStandsForItsNTFSPartition) {
    const SampleVolume volume;
    const std::string bytes = readFile(volume.image());
    const std::string disk = volume.directory() / "disk";
    const std::string other(1 << 20, 'x');
    writeFile(disk, diskOf({other, bytes}));
    tavelinDone({"put", disk + ":2", "-", "file"}, "content");
    EXPECT_EQ(tavelinDone({"cat", disk + ":2", "file"}), "content");
    EXPECT_EQ(tavelinDone({"ls", "--offset", std::to_string(2 << 20), disk}), "file\n");
    EXPECT_NE(tavelinDone({"probe", disk}).find("in partition 2"), std::string::npos);
    EXPECT_NE(tavelinDone({"check", disk}).find("nothing is wrong"), std::string::npos);
    EXPECT_EQ(readFile(disk).substr(0, 2 << 20), diskOf({other, bytes}).substr(0, 2 << 20));
    expectRefusal(tavelinRun({"ls", disk + ":1"}), kFailed, "text file");
    if (tavelinRun({"mount", "--help"}).ok()) { // where there is a FUSE host
        expectRefusal(tavelinRun({"mount", disk, volume.directory().path()}), kFailed, "p2 can be");
    }
    expectRefusal(tavelinRun({"ls", disk + ":3"}), kFailed, "no partition 3: it has 1 (1.0 MiB)");
    expectRefusal(tavelinRun({"ls", volume.image().string() + ":1"}), kFailed,
                  "no partition table");

    writeFile(disk, diskOf({bytes, bytes}));
    expectRefusal(tavelinRun({"ls", disk}), kFailed, disk + ":1");
    EXPECT_EQ(tavelinDone({"ls", disk + ":1"}), "");
    writeFile(disk, diskOf({other}));
    expectRefusal(tavelinRun({"ls", disk}), kFailed, "without an NTFS partition: 1 (1.0 MiB)");
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
    EXPECT_NE(tavelinDone({"info", image}).find("Windows is hibernated on it"), std::string::npos);
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
