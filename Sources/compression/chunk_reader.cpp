#include "compression/chunk_reader.hpp"

#include <algorithm>
#include <cerrno>

namespace tavelin::compression {
namespace {

std::unique_ptr<std::uint8_t[]> makeBytes(std::uint64_t count) {
    return std::make_unique_for_overwrite<std::uint8_t[]>(static_cast<std::size_t>(count));
}

} // namespace

std::unique_ptr<ChunkReader> ChunkReader::create(Format format, std::uint64_t fileSize,
                                                 std::uint64_t streamSize) {
    if (compression::chunkSize(format) == 0 || fileSize > kFileSizeMax) {
        return nullptr;
    }
    std::unique_ptr<ChunkReader> reader(new ChunkReader(format, fileSize, streamSize));
    return reader->tableSize_ > streamSize ? nullptr : std::move(reader);
}

ChunkReader::ChunkReader(Format format, std::uint64_t fileSize, std::uint64_t streamSize)
    : fileSize_(fileSize),
      streamSize_(streamSize),
      chunkSize_(compression::chunkSize(format)),
      chunkCount_((fileSize + chunkSize_ - 1) / chunkSize_),
      entrySize_(fileSize < kWideTableFileSizeMin ? 4 : 8),
      tableSize_(chunkCount_ == 0 ? 0 : (chunkCount_ - 1) * entrySize_),
      slots_(
          static_cast<std::size_t>(std::min<std::uint64_t>(kCacheSize / chunkSize_, chunkCount_))),
      slotBytes_(makeBytes(slots_.size() * chunkSize_)),
      tableWindow_(makeBytes(std::min<std::uint64_t>(kTableWindowSize, tableSize_))),
      inputCapacity_(static_cast<std::size_t>(std::min<std::uint64_t>(kInputSize, streamSize))),
      input_(makeBytes(inputCapacity_)) {
    TAVELIN_ASSERT(chunkSize_ > 0 && chunkSize_ <= kChunkSizeMax && fileSize <= kFileSizeMax);
    if (format == Format::lzx32K) {
        decoder_.emplace<LzxDecoder>();
    }
    for (std::size_t i = 0; i < slots_.size(); i++) {
        slots_[i].bytes = &slotBytes_[i * chunkSize_];
    }
}

int ChunkReader::read(const Source& source, std::uint64_t offset, std::span<std::uint8_t> to,
                      std::size_t& count) {
    count = 0;
    if (offset >= fileSize_) {
        return 0;
    }
    to = to.first(static_cast<std::size_t>(std::min<std::uint64_t>(to.size(), fileSize_ - offset)));
    while (count < to.size()) {
        const std::uint64_t position = offset + count;
        const std::uint64_t chunk = position / chunkSize_;
        const auto skipped = static_cast<std::size_t>(position % chunkSize_);
        const std::size_t size = sizeOf(chunk);
        const std::size_t wanted = std::min(size - skipped, to.size() - count);
        const std::uint64_t last = (offset + to.size() - 1) / chunkSize_;
        const bool isBulk = last != offset / chunkSize_;
        if (const int error =
                provide(source, chunk, last, skipped, isBulk, to.subspan(count, wanted))) {
            return error;
        }
        count += wanted;
    }
    return 0;
}

/// Puts the bytes of a chunk from `skipped` on into `to`, by way of a slot unless the request is
/// for all of it and for others.
int ChunkReader::provide(const Source& source, std::uint64_t chunk, std::uint64_t last,
                         std::size_t skipped, bool isBulk, std::span<std::uint8_t> to) {
    TAVELIN_ASSERT(chunk <= last && skipped + to.size() <= sizeOf(chunk));
    Slot* slot = find(chunk);
    if (slot == nullptr) {
        std::span<const std::uint8_t> input;
        if (const int error = load(source, chunk, last, input)) {
            return error;
        }
        const std::size_t size = sizeOf(chunk);
        // Requests for single chunks may come again; in longer ones they would drive these out.
        if (to.size() == size && isBulk) {
            return decode(input, to) ? 0 : EIO;
        }
        slot = &leastRecentlyUsed();
        // A chunk that does not decode leaves anything in the slot: nothing may find it there.
        slot->chunk = kNoChunk;
        if (!decode(input, {slot->bytes, size})) {
            return EIO;
        }
        slot->chunk = chunk;
    }
    slot->lastUse = ++uses_;
    std::memcpy(to.data(), slot->bytes + skipped, to.size());
    return 0;
}

/// Makes the chunk's compressed bytes available, and reads ahead those of its successors up to
/// `last` as far as there is room.
int ChunkReader::load(const Source& source, std::uint64_t chunk, std::uint64_t last,
                      std::span<const std::uint8_t>& input) {
    Extent extent{};
    if (const int error = extentOf(source, chunk, extent)) {
        return error;
    }
    if (extent.begin < inputBegin_ || extent.end > inputEnd_) {
        std::uint64_t end = extent.end;
        Extent next{};
        for (std::uint64_t ahead = chunk + 1; ahead <= last; ahead++) {
            // Whatever is wrong with a later chunk is reported when its turn comes.
            if (extentOf(source, ahead, next) != 0 || next.end - extent.begin > inputCapacity_) {
                break;
            }
            end = next.end;
        }
        // The buffer counts as empty while the source fills it: a failed read leaves anything
        // there.
        inputBegin_ = inputEnd_ = 0;
        const auto size = static_cast<std::size_t>(end - extent.begin);
        TAVELIN_ASSERT(size <= inputCapacity_);
        if (const int error = source(extent.begin, {input_.get(), size})) {
            return error;
        }
        inputBegin_ = extent.begin;
        inputEnd_ = end;
    }
    input = {&input_[extent.begin - inputBegin_],
             static_cast<std::size_t>(extent.end - extent.begin)};
    return 0;
}

/// Where a chunk is in the stream. EIO unless it has at least one byte, no more than its contents,
/// and ends within the stream.
int ChunkReader::extentOf(const Source& source, std::uint64_t chunk, Extent& extent) {
    if (const int error = offsetOf(source, chunk, extent.begin)) {
        return error;
    }
    if (const int error = offsetOf(source, chunk + 1, extent.end)) {
        return error;
    }
    const bool isSound = extent.begin < extent.end && extent.end <= streamSize_ &&
                         extent.end - extent.begin <= sizeOf(chunk);
    return isSound ? 0 : EIO;
}

/// Where a chunk begins in the stream, or the last one ends. What the table says is not checked.
int ChunkReader::offsetOf(const Source& source, std::uint64_t chunk, std::uint64_t& offset) {
    TAVELIN_ASSERT(chunk <= chunkCount_);
    // The table has no entry for the first chunk, which begins where the table ends.
    if (chunk == 0 || chunk == chunkCount_) {
        offset = chunk == 0 ? tableSize_ : streamSize_;
        return 0;
    }
    const std::uint64_t position = (chunk - 1) * entrySize_;
    if (position < tableWindowBegin_ || position >= tableWindowBegin_ + tableWindowSize_) {
        const std::uint64_t begin = position / kTableWindowSize * kTableWindowSize;
        const auto size =
            static_cast<std::size_t>(std::min<std::uint64_t>(kTableWindowSize, tableSize_ - begin));
        tableWindowSize_ = 0;
        if (const int error = source(begin, {tableWindow_.get(), size})) {
            return error;
        }
        tableWindowBegin_ = begin;
        tableWindowSize_ = size;
    }
    TAVELIN_ASSERT(position + entrySize_ <= tableWindowBegin_ + tableWindowSize_);
    const std::uint8_t* const entry = &tableWindow_[position - tableWindowBegin_];
    const std::uint64_t relative =
        entrySize_ == 4 ? loadLittle<std::uint32_t>(entry) : loadLittle<std::uint64_t>(entry);
    // Saturates, so that no entry wraps around to a place in the stream.
    offset = relative > streamSize_ ? streamSize_ + 1 : tableSize_ + relative;
    return 0;
}

bool ChunkReader::decode(std::span<const std::uint8_t> input,
                         std::span<std::uint8_t> output) noexcept {
    TAVELIN_ASSERT(!input.empty() && input.size() <= output.size());
    // The encoder stores a chunk plainly that does not get shorter.
    if (input.size() == output.size()) {
        std::memcpy(output.data(), input.data(), input.size());
        return true;
    }
    return std::visit([&](auto& decoder) { return decoder.decode(input, output); }, decoder_);
}

std::size_t ChunkReader::sizeOf(std::uint64_t chunk) const noexcept {
    TAVELIN_ASSERT(chunk < chunkCount_);
    return static_cast<std::size_t>(
        std::min<std::uint64_t>(chunkSize_, fileSize_ - chunk * chunkSize_));
}

ChunkReader::Slot* ChunkReader::find(std::uint64_t chunk) noexcept {
    const auto slot = std::find_if(slots_.begin(), slots_.end(),
                                   [&](const Slot& each) { return each.chunk == chunk; });
    return slot == slots_.end() ? nullptr : &*slot;
}

ChunkReader::Slot& ChunkReader::leastRecentlyUsed() noexcept {
    TAVELIN_ASSERT(!slots_.empty());
    return *std::min_element(slots_.begin(), slots_.end(),
                             [](const Slot& a, const Slot& b) { return a.lastUse < b.lastUse; });
}

} // namespace tavelin::compression
