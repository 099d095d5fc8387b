#include "core/journal/log_file.hpp"

#include "core/device_box.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavelin {

namespace {

// Formatters make the file in one piece or a few. Every transfer walks the list, and a list of
// hundreds says that something is wrong.
constexpr std::uint32_t kExtentsMax = 64;
constexpr std::byte kBlank{0xff};
constexpr std::uint64_t kBlankBytesMax = 256 * LogFile::kPage; // blanked at a time

} // namespace

LogFile::LogFile(std::shared_ptr<BlockDevice> device, std::vector<ntb_extent> extents)
    : device_(std::move(device)), extents_(std::move(extents)) {
    for (const ntb_extent& extent : extents_) {
        size_ += extent.length;
    }
}

const char* describe(JournalAbsence absence) noexcept {
    switch (absence) {
    case JournalAbsence::none:
        break;
    case JournalAbsence::notPlain:
        return "$LogFile is missing, damaged or not in a few plain pieces";
    case JournalAbsence::unaligned:
        return "$LogFile shares 4096-byte pages of the device with other files";
    case JournalAbsence::largeBlocks:
        return "the device has blocks of more than 4096 bytes";
    case JournalAbsence::tooSmall:
        return "$LogFile is smaller than 192 KiB";
    case JournalAbsence::unreadable:
        return "a sector of $LogFile can be neither read nor written";
    }
    return "";
}

std::int32_t LogFile::find(const std::shared_ptr<BlockDevice>& device,
                           std::optional<LogFile>& found, JournalAbsence& absence) noexcept {
    // Until the extents are found: the bridge answers EINVAL for every reason why there are none.
    absence = JournalAbsence::notPlain;
    try {
        DeviceBox box(device);
        const ntb_io io = makeIO(box);
        std::vector<ntb_extent> extents(kExtentsMax);
        std::uint32_t count = 0;
        const std::int32_t error = ntb_log_extents(&io, extents.data(), kExtentsMax, &count);
        if (error != 0) {
            // The volume mounts without a journal then. The bridge reads the record from $MFT and,
            // where that copy is torn, from $MFTMirr: a cut may have torn it just when a replay is
            // needed.
            return error == EINVAL ? 0 : error;
        }
        extents.resize(count);
        // The cache above writes whole pages. One that the file shares with another file would be
        // written over the records in it, which the cache has never seen.
        const bool isAligned = std::all_of(extents.begin(), extents.end(), [](const auto& extent) {
            return extent.offset % kPage == 0 && extent.length % kPage == 0;
        });
        // A device of larger blocks could not write the header of a reset without its neighbour
        // pages.
        if (kPage % device->blockSize() != 0) {
            absence = JournalAbsence::largeBlocks;
        } else if (!isAligned) {
            absence = JournalAbsence::unaligned;
        } else {
            absence = JournalAbsence::none;
            found = LogFile(device, std::move(extents));
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

// Walks the extents in the order of the file. `offset` is relative to the extent at hand until the
// first piece is found, and 0 from then on.
template<typename Transfer>
std::int32_t LogFile::eachPiece(std::uint64_t offset, std::uint64_t length,
                                Transfer transfer) const noexcept {
    std::uint64_t done = 0;
    for (const ntb_extent& extent : extents_) {
        if (offset < extent.length && done < length) {
            const std::uint64_t count = std::min(extent.length - offset, length - done);
            if (const auto error = transfer(done, extent.offset + offset, count); error != 0) {
                return error;
            }
            done += count;
            offset = 0;
        } else {
            offset -= std::min(offset, extent.length);
        }
    }
    // A range that reaches beyond the file is a fault of the caller, and nothing outside the
    // extents was touched.
    return done == length ? 0 : EINVAL;
}

std::int32_t LogFile::read(std::byte* destination, std::uint64_t offset,
                           std::uint64_t length) const noexcept {
    TAVELIN_ASSERT(offset % device_->blockSize() == 0 && length % device_->blockSize() == 0);
    return eachPiece(offset, length, [&](auto done, auto place, auto count) {
        const std::int32_t error = device_->read(destination + done, place, count);
        // A second try, because the answer ends a journal for good: a passing fault must not cost a
        // sync.
        return error == EIO ? device_->read(destination + done, place, count) : error;
    });
}

std::int32_t LogFile::write(const std::byte* source, std::uint64_t offset,
                            std::uint64_t length) noexcept {
    TAVELIN_ASSERT(offset % device_->blockSize() == 0 && length % device_->blockSize() == 0);
    const auto error = eachPiece(offset, length, [&](auto done, auto place, auto count) {
        return device_->write(source + done, place, count);
    });
    failedWrites_ += error == EIO ? 1 : 0;
    return error;
}

std::int32_t LogFile::writeGathered(GatheredBytes parts, std::uint64_t offset) {
    std::vector<std::span<const std::byte>> inPiece;
    // Each part has at most one span in a piece, and eachPiece() lets no exception through.
    inPiece.reserve(parts.size());
    auto part = parts.begin();
    std::size_t inPart = 0; // bytes of it that are written
    const auto error =
        eachPiece(offset, bytesIn(parts), [&](std::uint64_t, auto place, auto count) {
            inPiece.clear();
            for (std::uint64_t missing = count; missing > 0;) {
                const auto bytes = part->subspan(inPart, std::min(missing, part->size() - inPart));
                inPiece.push_back(bytes);
                missing -= bytes.size();
                inPart += bytes.size();
                if (inPart == part->size()) {
                    ++part;
                    inPart = 0;
                }
            }
            return device_->writeGathered(inPiece, place);
        });
    failedWrites_ += error == EIO ? 1 : 0;
    return error;
}

std::int32_t LogFile::isBlank(std::uint64_t begin, std::uint64_t end, bool& blank,
                              bool& lost) const noexcept {
    const auto isAllBlank = [](const std::vector<std::byte>& bytes) {
        return std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == kBlank; });
    };
    lost = false;
    try {
        std::vector<std::byte> found(end - begin);
        // One read is the usual case. Only a lost sector makes the walk below necessary.
        if (const std::int32_t error = read(found.data(), begin, found.size()); error != EIO) {
            blank = isAllBlank(found);
            return error;
        }
        lost = true;
        bool isAnyRead = false;
        blank = true;
        found.resize(kPage);
        for (std::uint64_t at = begin; at < end; at += kPage) {
            const std::int32_t error = read(found.data(), at, kPage);
            if (error != 0 && error != EIO) {
                return error;
            }
            isAnyRead = isAnyRead || error == 0;
            // A lost page may have been blank or not. The readable ones decide.
            blank = blank && (error == EIO || isAllBlank(found));
        }
        // A file of which no page can be read has shown nothing, and must not pass for blank.
        blank = blank && isAnyRead;
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t LogFile::makeBlank(std::uint64_t begin, std::uint64_t end) noexcept {
    try {
        TAVELIN_ASSERT(begin <= end && end <= size_);
        // A bounded buffer: $LogFile may have 64 MiB and more, and an unmount must not fail for
        // want of memory.
        const std::vector<std::byte> blank(std::min(end - begin, kBlankBytesMax), kBlank);
        for (; begin < end; begin += blank.size()) {
            const std::uint64_t count = std::min<std::uint64_t>(end - begin, blank.size());
            if (const std::int32_t error = write(blank.data(), begin, count); error != 0) {
                return error;
            }
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void LogFile::makeBlankWherePossible(std::uint64_t begin, std::uint64_t end) noexcept {
    for (; begin < end; begin += kBlankBytesMax) {
        const std::uint64_t last = std::min(end, begin + kBlankBytesMax);
        // In long runs where the device lets them pass, page by page around a bad sector.
        if (makeBlank(begin, last) == 0) {
            continue;
        }
        for (std::uint64_t page = begin; page < last; page += kPage) {
            static_cast<void>(makeBlank(page, page + kPage)); // as far as it goes
        }
    }
}

void LogFile::showBlank(std::byte* destination, std::uint64_t offset,
                        std::uint64_t length) const noexcept {
    for (const ntb_extent& extent : extents_) {
        const std::uint64_t begin = std::max(offset, extent.offset);
        const std::uint64_t end = std::min(offset + length, extent.offset + extent.length);
        if (begin < end) {
            std::memset(destination + (begin - offset), std::to_integer<int>(kBlank), end - begin);
        }
    }
}

bool LogFile::overlaps(std::uint64_t offset, std::uint64_t length) const noexcept {
    return std::any_of(extents_.begin(), extents_.end(), [&](const ntb_extent& extent) {
        return extent.offset < offset + length && offset < extent.offset + extent.length;
    });
}

} // namespace tavelin
