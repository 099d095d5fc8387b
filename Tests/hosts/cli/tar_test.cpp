// tar: what comes out is what tar(1) reads, and what tar(1) writes goes in.
#include "tavelin_program.hpp"

#include "hosts/tree.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>

namespace tavelin::test {
namespace {

namespace fs = std::filesystem;

// A header of 512 bytes for a file without content; the checksum is the sum of all its bytes.
std::string tarHeader(const std::string& name, char type) {
    std::string header(512, '\0');
    header.replace(0, name.size(), name);
    header.replace(100, 7, "0000644");
    header.replace(124, 11, "00000000000");
    header.replace(136, 11, "00000000000");
    header.replace(148, 8, "        ");
    header[156] = type;
    header.replace(257, 8, std::string("ustar\00000", 8));
    unsigned sum = 0;
    for (const char byte : header) {
        sum += static_cast<unsigned char>(byte);
    }
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%06o", sum);
    header.replace(148, 7, std::string(text.data(), 7));
    return header;
}

TEST(Tar, TreesGoOutAndIn) {
    const SampleVolume volume({.bytes = 64ull << 20});
    const TempDirectory host;
    const std::string image = volume.image();
    const fs::path tree = host / "tree";
    makeTree(tree, 60);
    writeFile(tree / "sparse", "head");
    fs::resize_file(tree / "sparse", 40 << 20);
    fs::create_hard_link(tree / "sparse", tree / "sparse, too");
    const std::string archive = host / "archive.tar";
    runOrThrow({"tar", "--xattrs", "--format=pax", "-C", host.path(), "-cSf", archive, "tree"});

    // In, out again by the program, and out by tar(1).
    tavelinDone({"tar", "extract", image}, readFile(archive));
    tavelinDone({"tar", "extract", image}, readFile(archive)); // replaces, and has links already
    volume.check();
    EXPECT_EQ(tavelinItems({"stat", image, "tree/sparse, too"}).at(0).at("links"), 2);
    tavelinDone({"get", image, "tree", host / "got"});
    EXPECT_EQ(firstDifference(readTree(tree, true), readTree(host / "got", true)), "");
    writeFile(archive, tavelinDone({"tar", "create", image, "tree"}));
    EXPECT_LT(fs::file_size(archive), 4u << 20);
    fs::create_directory(host / "out");
    runOrThrow({"tar", "--xattrs", "-C", host / "out", "-xf", archive});
    EXPECT_EQ(firstDifference(readTree(tree, true), readTree(host / "out" / "tree", true)), "");
    EXPECT_EQ(fs::hard_link_count(host / "out" / "tree" / "sparse"), 2u);
}

TEST(Tar, HostileAndBrokenArchivesDoNoHarm) {
    const SampleVolume volume;
    const std::string image = volume.image();
    tavelinDone({"mkdir", "-p", image, "target", "outside"});
    tavelinDone({"ln", "-s", image, "/outside", "target/link"});
    const std::string end(1024, '\0');
    const struct {
        std::string archive;
        std::string hint;
    } kTable[] = {
        {tarHeader("../x", '0') + end, "leads out of the target"},
        {tarHeader("link/x", '0') + end, "something else than a directory"},
        {tarHeader("device", '3') + end, "devices"},
        {tarHeader("cut", '0').substr(0, 300), "format"},
        {"no archive", "format"},
    };
    for (const auto& row : kTable) {
        expectRefusal(tavelinRun({"tar", "extract", image, "target"}, row.archive), kFailed,
                      row.hint);
    }
    expectRefusal(tavelinRun({"tar", "extract", image, "none"}, end), kFailed, "mkdir -p");
    EXPECT_EQ(volume.list("outside").size() + volume.list("/").size(), 2u);
    EXPECT_EQ(volume.list("target"), std::vector<std::string>{"link"});
    // What comes after an entry that is refused is unpacked.
    EXPECT_EQ(tavelinRun({"tar", "extract", image, "target"},
                         tarHeader("../x", '0') + tarHeader("/y", '0') + end)
                  .status,
              kFailed);
    EXPECT_EQ(volume.list("target"), (std::vector<std::string>{"link", "y"}));
    volume.check();
}

} // namespace
} // namespace tavelin::test
