// What a user gets wrong: told in one line that says what to do, and no byte of the image changed.
#include "tavelin_program.hpp"

#include "support/little_endian.hpp"

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
        {"bitlocker", begins("\xeb\x58\x90-FVE-FS-"), "encrypted with BitLocker"},
        {"refs", begins(std::string("\0\0\0ReFS\0", 8)), "it holds ReFS"},
        // Formatted anew, with the copy of the old boot sector still at the end.
        {"refs-on-ntfs", std::string("\0\0\0ReFS\0", 8) + whole.substr(8), "it holds ReFS"},
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
    for (std::size_t i = 0; i < images.size(); ++i) {
        const std::size_t entry = 446 + 16 * i;
        disk[entry + 4] = '\x07'; // the type that NTFS partitions have
        disk.replace(entry + 8, 4, littleEndian(disk.size() / 512, 4));
        disk.replace(entry + 12, 4, littleEndian(images[i].size() / 512, 4));
        disk += images[i];
    }
    return disk;
}

std::uint32_t crc32(const std::string& bytes) {
    std::uint32_t crc = ~0u;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int i = 0; i < 8; ++i) {
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xedb88320 : 0);
        }
    }
    return ~crc;
}

/// A disk with a GPT as Windows makes it: a reserved partition, then `image`, both of basic data.
std::string gptDiskOf(const std::string& image) {
    constexpr std::uint64_t kSector = 512;
    constexpr std::uint64_t kFirst = 2048; // sectors, as all of these
    const std::uint64_t imageSectors = image.size() / kSector;
    const std::uint64_t sectors = 2 * kFirst + imageSectors + 34;
    const std::string basicData("\xa2\xa0\xd0\xeb\xe5\xb9\x33\x44\x87\xc0\x68\xb6\xb7\x26\x99\xc7",
                                16);
    const auto entry = [&](char id, std::uint64_t first, std::uint64_t last) {
        return basicData + std::string(16, id) + littleEndian(first, 8) + littleEndian(last, 8) +
               std::string(8 + 72, '\0');
    };
    std::string entries =
        entry('a', kFirst, 2 * kFirst - 1) + entry('b', 2 * kFirst, 2 * kFirst + imageSectors - 1);
    entries.resize(128 * 128);
    const auto header = [&](std::uint32_t crc) {
        return "EFI PART" + littleEndian(0x10000, 4) + littleEndian(92, 4) + littleEndian(crc, 4) +
               littleEndian(0, 4) + littleEndian(1, 8) + littleEndian(sectors - 1, 8) +
               littleEndian(34, 8) + littleEndian(sectors - 34, 8) + std::string(16, 'd') +
               littleEndian(2, 8) + littleEndian(128, 4) + littleEndian(128, 4) +
               littleEndian(crc32(entries), 4);
    };
    // Its MBR keeps other systems off the disk: one partition of a type of its own, over all.
    std::string disk(kSector, '\0');
    disk.replace(446, 16,
                 littleEndian(0, 4) + '\xee' + littleEndian(0, 3) + littleEndian(1, 4) +
                     littleEndian(sectors - 1, 4));
    disk.replace(510, 2, "\x55\xaa");
    disk += header(crc32(header(0)));
    disk.resize(2 * kSector);
    disk += entries;
    disk.resize(2 * kFirst * kSector);
    disk += image;
    disk.resize(sectors * kSector);
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

    writeFile(disk, gptDiskOf(bytes));
    tavelinDone({"mkdir", disk, "folder"});
    EXPECT_EQ(tavelinDone({"ls", disk + ":2"}), "folder\n");
    EXPECT_EQ(tavelinItems({"info", disk}).at(0).at("partition"), 2);

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

// NTFS has a copy of its first sector in the last one.
TEST(BadInput, AnImageWithoutItsFirstSectorIsOnlyRead) {
    const SampleVolume volume;
    volume.leaveUnchecked();
    const std::string image = volume.image();
    tavelinDone({"put", image, "-", "file"}, "content");
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
