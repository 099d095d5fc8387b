// For tests of what stands on a volume: a sample volume's image as a disk, and short ways to say
// what such tests say about errors. Programs that include this link the core.
#pragma once

#include "core/ntfs_error.hpp"
#include "lab/disk_device.hpp"
#include "lab/mapped_image.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <functional>

namespace tavelin::test {

// What is written is in the image at once.
using SampleDisk = DiskDeviceOf<MappedImage>;

inline std::shared_ptr<SampleDisk> diskOf(const SampleVolume& volume) {
    return std::make_shared<SampleDisk>(MappedImage::ofFile(volume.image()));
}

// The code an operation throws, 0 when it does not.
inline std::int32_t codeOf(const std::function<void()>& operation) {
    try {
        operation();
        return 0;
    } catch (const NTFSError& error) {
        return error.code;
    }
}

// The check of an independent tool finds nothing wrong.
inline void expectConsistent(const SampleVolume& volume) {
    EXPECT_EQ(volume.check().find("FAILED"), std::string::npos) << volume.check();
}

} // namespace tavelin::test
