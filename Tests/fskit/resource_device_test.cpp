// The device under the volume: pieces, short transfers, errors, the kernel's cache.
#include "module_fixture.hpp"

#include "core/ntfs_error.hpp"
#include "fskit/posix_error.hpp"
#include "platform/error_numbers.hpp"

#include <cerrno>

namespace tavelin {
namespace {

using namespace test;
using Call = MemoryResource::Call;

constexpr std::size_t kMiB = 1 << 20;

class Device : public ModuleTest {
  protected:
    Device() {
        disk = std::make_shared<MemoryResource>(std::string(20 * kMiB, '\0'));
        for (std::size_t i = 0; i < disk->bytes.size(); i += 512) {
            disk->bytes[i] = static_cast<char>(i / 512 % 251);
        }
        deviceErrorEvents = 0;
    }

    // Records what each piece asks for, and lets `most` bytes of it through.
    void admit(std::size_t most) {
        disk->hook = [this, most](Call, std::uint64_t offset, std::size_t length) {
            pieces.emplace_back(offset, length);
            return std::min(length, most);
        };
    }
    void fail(const fskit::Error& error) {
        disk->hook = [error](auto...) -> std::size_t { throw error; };
    }

    using Pieces = std::vector<std::pair<std::uint64_t, std::size_t>>;
    Pieces pieces;
    std::string buffer = std::string(20 * kMiB, 'x');
    std::byte* const memory = std::as_writable_bytes(std::span(buffer)).data();
};

TEST_F(Device, HasTheLargerBlockAndWholeBlocksOnly) {
    disk->bytes.resize(10000);
    EXPECT_EQ(ResourceDevice(disk).size(), 9728u);
    disk->physicalBlock = 4096;
    EXPECT_EQ(ResourceDevice(disk).blockSize(), 4096u);
    EXPECT_EQ(ResourceDevice(disk).size(), 8192u);
    disk->physicalBlock = disk->logicalBlock = 1;
    EXPECT_EQ(ResourceDevice(disk).blockSize(), 512u);
}

TEST_F(Device, TransfersInPiecesAndAcrossShortTransfers) {
    ResourceDevice device(disk);
    admit(SIZE_MAX);
    EXPECT_EQ(device.read(memory, 512, 19 * kMiB), 0);
    EXPECT_EQ(pieces,
              (Pieces{{512, 8 * kMiB}, {512 + 8 * kMiB, 8 * kMiB}, {512 + 16 * kMiB, 3 * kMiB}}));
    EXPECT_TRUE(buffer.compare(0, 19 * kMiB, disk->bytes, 512, 19 * kMiB) == 0);

    pieces.clear();
    admit(3 * kMiB);
    std::reverse(buffer.begin(), buffer.end());
    EXPECT_EQ(device.write(memory, 0, 7 * kMiB), 0);
    EXPECT_EQ(pieces, (Pieces{{0, 7 * kMiB}, {3 * kMiB, 4 * kMiB}, {6 * kMiB, kMiB}}));
    EXPECT_TRUE(buffer.compare(0, 7 * kMiB, disk->bytes, 0, 7 * kMiB) == 0);
    EXPECT_EQ(device.read(memory, 0, 0), 0);
    EXPECT_EQ(takeCounts(), "read=2 write=1");
}

TEST_F(Device, GoesThroughTheKernelsCacheWhenAsked) {
    ResourceDevice device(disk);
    EXPECT_EQ(device.sync(), 0);
    EXPECT_EQ(disk->count(Call::metadataFlush), 0);
    device.cached = true;
    admit(SIZE_MAX);
    EXPECT_EQ(device.write(memory, 0, 2 * kMiB + 512), 0);
    EXPECT_EQ(pieces, (Pieces{{0, kMiB}, {kMiB, kMiB}, {2 * kMiB, 512}}));
    EXPECT_EQ(device.read(memory, 0, 512), 0);
    EXPECT_EQ(device.sync(), 0);
    EXPECT_EQ(disk->count(Call::metadataWrite), 3);
    EXPECT_EQ(disk->count(Call::metadataRead), 1);
    EXPECT_EQ(disk->count(Call::metadataFlush), 1);
    EXPECT_EQ(disk->count(Call::read) + disk->count(Call::write), 0);
    fail(fskit::fs_errorForPOSIXError(kENOSPC));
    EXPECT_EQ(device.sync(), ENOSPC);
    EXPECT_EQ(takeLog().size(), 0u);
}

TEST_F(Device, ErrorsAreLoggedTalliedAndReported) {
    ResourceDevice device(disk);
    admit(0);
    EXPECT_EQ(device.read(memory, 0, 512), EIO) << "no progress";
    EXPECT_EQ(takeLog().size(), 0u);

    fail(fskit::Error("SomeDomain", kENOSPC, "odd"));
    EXPECT_EQ(device.write(memory, 1024, 512), EIO) << "not a POSIX error";
    EXPECT_EQ(takeLog().back(), "error fs: write failed off=1024 len=512: odd");
    fail(fskit::Error(fskit::NSPOSIXErrorDomain, kENXIO, "gone"));
    EXPECT_EQ(device.read(memory, 0, 9 * kMiB), ENXIO);
    EXPECT_EQ(takeLastEvent(), R"({"err":"gone","errno":6,"ev":"device_error","len":9437184,)"
                               R"("off":0,"op":"read"})");
    EXPECT_EQ(errorTally().summary().at("counts"), FieldValue(Fields{{"5", 1}, {"6", 1}}));
}

TEST_F(Device, IsCachedInAModuleThatUsesTheKernelsCache) {
    const SampleVolume sample;
    disk = std::make_shared<MemoryResource>(readFile(sample.image()));
    ResourceDevice::enableKernelCache();
    EXPECT_EQ(probe().name, "Sample");
    start();
    EXPECT_NE(takeLastEvent().find(R"("kernel_cache":true)"), std::string::npos);
    EXPECT_EQ(requests().create(root, "file").code(), 0);
    EXPECT_EQ(requests().synchronize(), 0);
    EXPECT_EQ(disk->count(Call::read) + disk->count(Call::write), 0);
    EXPECT_GE(disk->count(Call::metadataFlush), 1);
}

TEST_F(Device, ErrorsOfEveryKindBecomeThoseOfTheHost) {
    const fskit::Error own("SomeDomain", 4506, "own");
    EXPECT_EQ(posixError(NTFSError(kENOSPC), "write"), fskit::fs_errorForPOSIXError(kENOSPC));
    EXPECT_EQ(posixError(own, "write"), own);
    EXPECT_EQ(posixError(std::runtime_error("odd"), "read"), fskit::fs_errorForPOSIXError(kEIO));
    EXPECT_EQ(errorTally().summary().at("first"),
              FieldValue(std::vector<std::string>{"write:28", "write:5", "read:5"}));
}

} // namespace
} // namespace tavelin
