/// One index from its first entry to its last: the tree of its blocks, and the order of its keys.
#pragma once

#include "check/private/volume.hpp"

#include <functional>

namespace tavelin::check {

/// How an index sorts its keys.
enum class Collation : std::uint32_t {
    binary = 0x00,
    fileName = 0x01,
    number = 0x10,       ///< u32
    securityHash = 0x12, ///< u32 hash, then u32 id
    numbers = 0x13,      ///< u32s
};

struct IndexEntry {
    std::span<const std::uint8_t> bytes;

    /// Of directories.
    [[nodiscard]] std::uint64_t reference() const noexcept { return ntb::u64_at(bytes.data(), 0); }
    [[nodiscard]] std::span<const std::uint8_t> key() const noexcept {
        return bytes.subspan(0x10, ntb::u16_at(bytes.data(), 0x0a));
    }
    /// Of other indexes; empty when it does not lie inside the entry.
    [[nodiscard]] std::span<const std::uint8_t> data() const noexcept;
};

class IndexWalk {
  public:
    using Visit = std::function<void(const IndexEntry&)>;

    /// The file has to outlive the walk.
    IndexWalk(Volume& volume, const File& file, std::string_view name)
        : volume_(volume), file_(file), name_(name) {}

    /// Calls visit with each entry, in order. Keys of Collation::fileName are file names.
    void run(Collation collation, const Visit& visit);

  private:
    struct Frame {
        std::vector<std::uint8_t> bytes;
        std::size_t at = 0;  ///< of the entry
        std::size_t end = 0; ///< of the entries
        bool hasDescended = false;
    };

    bool openRoot();
    void openAllocation();
    void descend(std::uint64_t vcn);
    bool readBlock(std::uint64_t index, std::uint64_t vcn, std::vector<std::uint8_t>& bytes);
    bool enter(std::vector<std::uint8_t> bytes, std::size_t header, FindingClass fault);
    /// False when the frame is done.
    bool step(const Visit& visit);
    bool isSound(const IndexEntry& entry, std::size_t room) const;
    bool visitKey(const IndexEntry& entry, const Visit& visit);
    void compareBitmap();
    void add(FindingClass kind, const std::string& expected, const std::string& found);

    Volume& volume_;
    const File& file_;
    const std::string_view name_;
    Collation collation_ = Collation::binary;
    const Attribute* allocation_ = nullptr;
    std::uint64_t blockSize_ = 0;
    std::uint64_t blocks_ = 0;
    std::vector<std::uint8_t> bitmap_;
    std::vector<bool> visited_;
    std::vector<Frame> frames_;
    std::vector<std::uint8_t> lastKey_;
    bool isWhole_ = true; ///< every block that entries lead to was walked to its end
};

/// Negative, 0 or positive as `a` sorts before, with, or behind `b`. Upper case by the volume's
/// table, then by value.
[[nodiscard]] int compareKeys(Collation collation, std::span<const std::uint8_t> a,
                              std::span<const std::uint8_t> b,
                              const std::vector<std::uint16_t>& upcase) noexcept;

} // namespace tavelin::check
