/// Random access to a file that Windows compressed as a whole (`compact /exe`, CompactOS): its
/// bytes are in the stream WofCompressedData, chunk by chunk. The stream's layout, from Microsoft's
/// description of the Windows Overlay Filter and of image files' resources: a table of the offsets
/// of all chunks but the first, relative to the table's end, 4 bytes each, or 8 where the file has
/// 4 GiB and more; then the chunks. A chunk that is as long as its contents is stored plainly.
#pragma once

#include "compression/lzx_decoder.hpp"
#include "compression/xpress_decoder.hpp"

#include <functional>
#include <memory>
#include <variant>
#include <vector>

namespace tavelin::compression {

/// How a file is compressed, numbered as in its reparse data.
enum class Format : std::uint32_t { xpress4K = 0, lzx32K = 1, xpress8K = 2, xpress16K = 3 };

/// Bytes that a chunk holds when decompressed, but for the last one of a file. 0 for a number that
/// is no format.
[[nodiscard]] constexpr std::size_t chunkSize(Format format) noexcept {
    switch (format) {
    case Format::xpress4K:
        return 4096;
    case Format::lzx32K:
        return 32768;
    case Format::xpress8K:
        return 8192;
    case Format::xpress16K:
        return 16384;
    }
    return 0;
}

/// Reads one compressed file. Keeps the last chunks it decompressed, up to kCacheSize bytes, and
/// pieces of the stream; allocates nothing after it was made. Holds nothing of the file's
/// own: whoever changes the file makes a new reader. One thread at a time.
class ChunkReader {
  public:
    /// Fills `to` with the bytes of the compressed stream from `offset` on; all of them exist, by
    /// the size that the reader was made with. 0, or a host errno.
    using Source = std::function<int(std::uint64_t offset, std::span<std::uint8_t> to)>;

    /// Bytes of decompressed chunks that a reader keeps: eight of the largest.
    static constexpr std::size_t kCacheSize = std::size_t{256} * 1024;

    /// A reader for a file of `fileSize` bytes, whose compressed stream has `streamSize`. Null when
    /// the format is unknown or the stream too short for its table. Throws std::bad_alloc.
    [[nodiscard]] static std::unique_ptr<ChunkReader> create(Format format, std::uint64_t fileSize,
                                                             std::uint64_t streamSize);

    /// Bytes of the file when decompressed, as the reader was made with.
    [[nodiscard]] std::uint64_t fileSize() const noexcept { return fileSize_; }

    /// Reads at most `to.size()` bytes of the file from `offset` on; `count` becomes the number of
    /// bytes that are right in `to`, less than asked for at the file's end and on an error. 0, the
    /// source's error, or EIO where the stream is damaged.
    [[nodiscard]] int read(const Source& source, std::uint64_t offset, std::span<std::uint8_t> to,
                           std::size_t& count);

  private:
    /// One decompressed chunk in memory. The slot that was used longest ago gives way.
    struct Slot {
        std::uint64_t chunk = kNoChunk;
        std::uint64_t lastUse = 0;
        std::uint8_t* bytes = nullptr; // in slotBytes_
    };
    /// Where a chunk's compressed bytes are.
    struct Extent { // in the compressed stream
        std::uint64_t begin;
        std::uint64_t end;
    };

    static constexpr std::uint64_t kNoChunk = ~std::uint64_t{0};
    /// From this file size on the table has entries of 8 bytes.
    static constexpr std::uint64_t kWideTableFileSizeMin = std::uint64_t{1} << 32;
    static constexpr std::uint64_t kFileSizeMax = std::uint64_t{1} << 62; // offsets cannot overflow
    /// Bytes of the table that are kept at a time, so that reading in order needs few small reads.
    static constexpr std::size_t kTableWindowSize = 4096;
    /// Bytes of compressed chunks that are read at a time.
    static constexpr std::size_t kInputSize = 65536;
    static constexpr std::size_t kChunkSizeMax = chunkSize(Format::lzx32K);
    /// The largest chunk of any format.
    static_assert(kChunkSizeMax == LzxDecoder::kChunkSizeMax);
    static_assert(kInputSize >= kChunkSizeMax); // no chunk is longer compressed than plain
    static_assert(kCacheSize >= kChunkSizeMax);
    static_assert(kTableWindowSize % 8 == 0); // no entry lies across two windows

    ChunkReader(Format format, std::uint64_t fileSize, std::uint64_t streamSize);

    /// Bytes that a chunk holds when decompressed: fewer in the last one.
    [[nodiscard]] std::size_t sizeOf(std::uint64_t chunk) const noexcept;
    /// Where a chunk begins in the compressed stream, by the table.
    [[nodiscard]] int offsetOf(const Source& source, std::uint64_t chunk, std::uint64_t& offset);
    /// The same with its end. EIO for entries that run backwards or beyond the stream: the table is
    /// the disk's word.
    [[nodiscard]] int extentOf(const Source& source, std::uint64_t chunk, Extent& extent);
    /// Has a chunk's compressed bytes in memory, read together with those of the chunks up to
    /// `last`.
    [[nodiscard]] int load(const Source& source, std::uint64_t chunk, std::uint64_t last,
                           std::span<const std::uint8_t>& input);
    /// Fills `to` with a part of one chunk, from memory where it is there, else by decompressing
    /// it.
    [[nodiscard]] int provide(const Source& source, std::uint64_t chunk, std::uint64_t last,
                              std::size_t skipped, bool isBulk, std::span<std::uint8_t> to);
    /// A chunk as long as its content is stored plainly; others go to the decoder of the format.
    [[nodiscard]] bool decode(std::span<const std::uint8_t> input,
                              std::span<std::uint8_t> output) noexcept;
    /// Null when the chunk has no slot.
    [[nodiscard]] Slot* find(std::uint64_t chunk) noexcept;
    [[nodiscard]] Slot& leastRecentlyUsed() noexcept;

    std::uint64_t fileSize_;
    std::uint64_t streamSize_;
    std::size_t chunkSize_;
    std::uint64_t chunkCount_;
    std::size_t entrySize_; // of the table of offsets
    std::uint64_t tableSize_;
    std::uint64_t uses_ = 0;

    /// The decoder of the file's format; chunks of all sizes of XPRESS are read by one.
    std::variant<XpressDecoder, LzxDecoder> decoder_;
    std::vector<Slot> slots_; // no more than the file has chunks
    std::unique_ptr<std::uint8_t[]> slotBytes_;
    std::unique_ptr<std::uint8_t[]> tableWindow_;
    std::uint64_t tableWindowBegin_ = 0; // in the stream
    std::size_t tableWindowSize_ = 0;    // 0 while it has nothing
    std::size_t inputCapacity_;
    std::unique_ptr<std::uint8_t[]> input_; // compressed chunks, from inputBegin_ in the stream
    std::uint64_t inputBegin_ = 0;
    std::uint64_t inputEnd_ = 0;
};

} // namespace tavelin::compression
