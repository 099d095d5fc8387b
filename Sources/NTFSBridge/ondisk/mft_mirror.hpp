// The first records of $MFT and their copy in $MFTMirr, which a power cut between the writes of the
// two leaves different. The library mounts no volume on which they differ.
//
// The record of $MFT counts; where it was cut in the middle of its write and its copy was not, the
// copy does.
#pragma once

#include "NTFSBridge/ntb.h"

#include <memory>

namespace ntb {

class mft_mirror {
  public:
    // The device's callbacks must stay good.
    // Reads nothing yet. The callbacks are copied; their context must outlive this object.
    explicit mft_mirror(const ntb_io& device) noexcept : device_(device) {}
    mft_mirror(const mft_mirror&) = delete;
    mft_mirror& operator=(const mft_mirror&) = delete;

    // Whether the two differ and can be brought into agreement. Only reads.
    [[nodiscard]] bool plan() noexcept;

    // After plan(): the device as it would be if they agreed, for a mount that tries whether
    // that is enough. What is written to it is forgotten. Good for as long as this object.
    ntb_io overlay_io() noexcept;

    // After plan(): writes the agreement to the device.
    [[nodiscard]] int32_t commit() noexcept;

  private:
    struct copy {
        uint64_t offset = 0; // bytes, of the first record on the device
        std::unique_ptr<uint8_t[]> records;
        std::unique_ptr<bool[]> is_changed; // by record
    };

    // Finds both copies through the boot sector. False where that describes no volume of this
    // device.
    [[nodiscard]] bool locate() noexcept;
    // Reads all mirrored records of one side into memory. False on an error of the device or of
    // memory.
    [[nodiscard]] bool fetch(copy& side) const noexcept;
    // Makes one record of `to` that of `from`, and notes that it has to be written.
    void take_over(const copy& from, copy& to, uint64_t number) const noexcept;
    // Copies changed records over what was read from the device, where the two ranges overlap.
    void overlay(const copy& side, uint8_t* buffer, uint64_t offset,
                 uint64_t length) const noexcept;
    // Writes the records of a side that changed. The device is not synced.
    [[nodiscard]] int32_t write_changes(const copy& side) const noexcept;

    static int32_t read_preview(void* context, void* buffer, uint64_t offset,
                                uint64_t length) noexcept;

    const ntb_io device_;
    uint64_t record_size_ = 0; // bytes
    uint64_t record_count_ = 0;
    copy table_;
    copy mirror_;
};

} // namespace ntb
