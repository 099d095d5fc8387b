// The disk as the module host has it.
#pragma once

#include "hosting/image_resource.hpp"
#include "lab/disk_resource.hpp"

#include <optional>

namespace tavelin::test {

// Programs that include this link the hosting layer.
template<typename Content>
class HostDiskOf final : public DiskResourceOf<HostResource, Content> {
  public:
    using DiskResourceOf<HostResource, Content>::DiskResourceOf;

    std::optional<fskit::Error> flushToMedium() override {
        return errorOf([&] { this->flush(DiskCall::flush); });
    }
    std::optional<fskit::Error> discard(std::uint64_t offset, std::uint64_t length) override {
        return errorOf([&] { this->lose(offset, length); });
    }

  private:
    template<typename Transfer>
    std::optional<fskit::Error> errorOf(Transfer&& transfer) {
        try {
            this->asked(transfer);
            return std::nullopt;
        } catch (const fskit::Error& error) {
            return error;
        }
    }
};

using HostDisk = HostDiskOf<Bytes>;

// One that keeps what happens to it.
inline std::shared_ptr<HostDisk> recordingDisk(Bytes content, std::uint64_t physicalBlock = 512) {
    auto disk = std::make_shared<HostDisk>(std::move(content), physicalBlock);
    disk->isRecording = true;
    return disk;
}

} // namespace tavelin::test
