#include "core/file_block_device.hpp"
#include "core/ntfs_error.hpp"
#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "lab/sample_disk.hpp"
#include "platform/error_numbers.hpp"
#include "support/own_group.hpp"
#include "support/run_process.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace tavelin {
namespace {

using test::run;

constexpr std::uint64_t kBlock = 4096;

TEST(FileBlockDevice, ServesWholeBlocksOfAFile) {
    const test::TempDirectory directory;
    test::writeFile(directory / "image", std::string(10000, 'a'));
    for (const bool noCache : {false, true}) {
        FileBlockDevice device(directory / "image", kBlock, false, noCache);
        EXPECT_EQ(device.size(), 8192u);
        std::array<std::byte, 2 * kBlock> out{}, in{};
        out.fill(std::byte{noCache});
        EXPECT_EQ(device.write(out.data(), 0, out.size()), 0);
        EXPECT_EQ(device.sync(), 0);
        EXPECT_EQ(device.read(in.data(), 0, in.size()), 0);
        EXPECT_EQ(in, out);
        EXPECT_EQ(device.read(in.data(), 2 * kBlock, kBlock), EIO) << "the file ends inside";
        EXPECT_EQ(device.read(in.data(), 8 * kBlock, 0), 0);

        EXPECT_EQ(device.read(in.data(), 0, 100), EINVAL);
        EXPECT_EQ(device.write(out.data(), 100, kBlock), EINVAL);
        device.strictAlignment = false;
        EXPECT_EQ(device.read(in.data(), 1, 100), 0);
        EXPECT_EQ(device.misaligned, 3);
    }
    EXPECT_DEATH(FileBlockDevice(directory / "image", 0), "block size of 0");
    EXPECT_EQ(test::codeOf([&] { FileBlockDevice(directory / "absent"); }), kENOENT);
}

TEST(FileBlockDevice, TakesTheSizeOfADeviceNodeFromTheDevice) {
    const test::TempDirectory directory;
    test::writeFile(directory / "image", std::string(1 << 20, 'x'));
    const auto attached = run({"losetup", "--find", "--show", directory / "image"});
    if (!attached.ok()) {
        GTEST_SKIP() << "no loop device here: " << attached.err;
    }
    const std::string node = attached.out.substr(0, attached.out.find('\n'));
    std::uint64_t size = 0;
    std::array<std::byte, kBlock> last{};
    {
        FileBlockDevice device(node);
        size = device.size();
        EXPECT_EQ(device.read(last.data(), (1 << 20) - kBlock, kBlock), 0);
    }
    EXPECT_TRUE(run({"losetup", "--detach", node}).ok());
    EXPECT_EQ(size, 1u << 20);
    EXPECT_EQ(last.back(), std::byte{'x'});
}

TEST(NTFSError, IsDescribedAndRecordedByItsNumber) {
    EXPECT_STREQ(NTFSError(kENOTEMPTY).what(), "66 Directory not empty");
    errorTally().reset();
    EXPECT_EQ(recordError(NTFSError(kENOSPC), "lookupItem(named:inDirectory:)"), kENOSPC);
    EXPECT_EQ(recordError(std::runtime_error("other"), "whole"), kEIO);
    EXPECT_EQ(recordError(NTFSError(kEACCES), ""), kEACCES);
    EXPECT_EQ(errorTally().summary().at("first"),
              Value(Value::List{"lookupItem:28", "whole:5", ":13"}));
}

TEST(DeviceError, IsTalliedAlwaysButLoggedTwentyTimesOnly) {
    const std::uint64_t start = events().read(0).offset;
    errorTally().reset();
    deviceErrorEvents = 0;
    for (int i = 0; i < 21; ++i) {
        deviceError("write", ENOTEMPTY, 4096, 512, std::string(300, 'e'));
    }
    EXPECT_EQ(errorTally().summary().at("counts"), Value(Value::Map{{"66", 21}}));
    const std::string log = events().read(start).text;
    EXPECT_EQ(std::ranges::count(log, '\n'), 20);
    const std::string first = log.substr(0, log.find(R"(,"pid")"));
    EXPECT_EQ(first, R"({"err":")" + std::string(200, 'e') +
                         R"(","errno":66,"ev":"device_error","len":512,"off":4096,"op":"write")");
    deviceErrorEvents = INT64_MAX;
    EXPECT_DEATH(deviceError("read", EIO, 0, 0, ""), "deviceErrorEvents");
    deviceErrorEvents = 0;
}

} // namespace
} // namespace tavelin
