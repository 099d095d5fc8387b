// A block device in memory for the bridge, which keeps a log of its calls and fails on request.
#pragma once

#include "NTFSBridge/ntb.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tavelin::test {

// Must stay where it is while a volume is mounted over io(). One thread at a time.
class MemoryIo {
  public:
    enum class Kind { kRead, kWrite, kWriteData, kSync };
    struct Call {
        Kind kind;
        uint64_t offset;
        uint64_t length;
        bool operator==(const Call&) const = default;
    };

    explicit MemoryIo(std::vector<uint8_t> content, uint32_t blockSize = 512);
    static MemoryIo fromFile(const std::filesystem::path& image, uint32_t blockSize = 512);

    const ntb_io& io();
    // From now on io() has a callback for file data.
    void takeFileData();
    std::vector<uint8_t>& bytes() { return bytes_; }
    void save(const std::filesystem::path& image) const;

    // Makes the calls numbered first (1 is the next one) to last answer `error` and do nothing.
    void fail(uint64_t first, uint64_t last, int32_t error);
    void failFrom(uint64_t first, int32_t error) { fail(first, UINT64_MAX, error); }
    void heal();
    uint64_t failures() const { return failures_; } // since fail()

    // The calls since the last takeLog(), up to a limit that unit tests stay below.
    std::vector<Call> takeLog();
    // Calls that broke the contract: misaligned, empty, or past the end.
    uint64_t violations() const { return violations_; }

  private:
    int32_t admit(Kind kind, uint64_t offset, uint64_t length);
    int32_t take(Kind kind, const void* buffer, uint64_t offset, uint64_t length);
    bool isAllowed(uint64_t offset, uint64_t length) const;

    std::vector<uint8_t> bytes_;
    ntb_io io_ = {};
    std::vector<Call> log_;
    uint64_t callCount_ = 0;
    uint64_t violations_ = 0;
    uint64_t failFirst_ = UINT64_MAX;
    uint64_t failLast_ = 0;
    uint64_t failures_ = 0;
    int32_t failError_ = 0;
};

} // namespace tavelin::test
