// FSKit's block device, as the front end asks it.
#import "extension/double/fskit_double.h"

#include "extension/block_device.hpp"
#include "platform/error_numbers.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

namespace tavelin::test {

namespace {

class BlockDevice : public testing::Test {
  protected:
    ~BlockDevice() override { [pool_ release]; }

    // What a call of the device throws; 0 for nothing.
    std::int64_t code(const std::function<void(fskit::FSBlockDeviceResource &)> &call) {
        try {
            call(*device_);
        } catch (const fskit::Error &error) {
            return error.isPOSIX() ? error.code() : -1;
        }
        return 0;
    }

    NSAutoreleasePool *const pool_ = [NSAutoreleasePool new];
    const SampleVolume sample_;
    ImageResource *const resource_ = [ImageResource resourceWithImage:sample_.image() writable:YES];
    const std::shared_ptr<fskit::FSBlockDeviceResource> device_ =
        std::dynamic_pointer_cast<fskit::FSBlockDeviceResource>(toCore(resource_));
    std::vector<std::byte> block_ = std::vector<std::byte>(4096);
};

TEST_F(BlockDevice, TellsTheResourcesOwnSizes) {
    EXPECT_EQ(device_->BSDName(), "disk7s1");
    EXPECT_TRUE(device_->isWritable());
    EXPECT_EQ(device_->blockSize(), 512u);
    EXPECT_EQ(device_->physicalBlockSize(), 4096u);
    EXPECT_EQ(device_->blockCount() * 512, std::filesystem::file_size(sample_.image()));
    EXPECT_EQ(toCore(static_cast<FSResource *>(nil)), nullptr);
}

TEST_F(BlockDevice, PassesCallsAndTheirErrorsOn) {
    EXPECT_EQ(device_->read(block_.data(), 0, block_.size()), block_.size());
    EXPECT_EQ(device_->write(block_.data(), 0, block_.size()), block_.size());
    constexpr std::uint64_t kFar = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(code([&](auto &device) { device.read(block_.data(), kFar, 1); }), kEINVAL);
    EXPECT_EQ(code([&](auto &device) { device.write(block_.data(), 512, 512); }), kEINVAL);
    resource_->_foreignErrors = 1;
    EXPECT_EQ(code([&](auto &device) { device.read(block_.data(), 0, 4096); }), -1);
    // As they were seen to on macOS 26, which is why nothing uses them.
    EXPECT_EQ(code([&](auto &device) { device.metadataRead(block_.data(), 0, 4096); }), kEIO);
    EXPECT_EQ(code([&](auto &device) { device.delayedMetadataWrite(block_.data(), 0, 4096); }),
              kEIO);
    EXPECT_EQ(code([](auto &device) { device.metadataFlush(); }), kEIO);

    resource_->_revokedNow = true;
    EXPECT_TRUE(device_->isRevoked());
    EXPECT_EQ(code([&](auto &device) { device.read(block_.data(), 0, 4096); }), kENXIO);
}

} // namespace

} // namespace tavelin::test
