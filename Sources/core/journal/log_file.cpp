#include "core/journal/log_file.hpp"

#include "core/device_box.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavelin {

namespace {

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

std::int32_t LogFile::find(const std::shared_ptr<BlockDevice>& device,
                           std::optional<LogFile>& found) noexcept {
    try {
        DeviceBox box(device);
        const ntb_io io = makeIO(box);
        std::vector<ntb_extent> extents(kExtentsMax);
        std::uint32_t count = 0;
        const std::int32_t error = ntb_log_extents(&io, extents.data(), kExtentsMax, &count);
        if (error != 0) {
            return error == EINVAL ? 0 : error;
        }
        extents.resize(count);
        const bool isAligned = std::all_of(extents.begin(), extents.end(), [](const auto& extent) {
            return extent.offset % kPage == 0 && extent.length % kPage == 0;
        });
        if (isAligned && kPage % device->blockSize() == 0) {
            found = LogFile(device, std::move(extents));
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

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
    return done == length ? 0 : EINVAL;
}

std::int32_t LogFile::read(std::byte* destination, std::uint64_t offset,
                           std::uint64_t length) const noexcept {
    return eachPiece(offset, length, [&](auto done, auto place, auto count) {
        return device_->read(destination + done, place, count);
    });
}

std::int32_t LogFile::write(const std::byte* source, std::uint64_t offset,
                            std::uint64_t length) noexcept {
    return eachPiece(offset, length, [&](auto done, auto place, auto count) {
        return device_->write(source + done, place, count);
    });
}

std::int32_t LogFile::isBlank(std::uint64_t begin, std::uint64_t end, bool& blank) const noexcept {
    try {
        std::vector<std::byte> found(end - begin);
        const std::int32_t error = read(found.data(), begin, found.size());
        blank = std::all_of(found.begin(), found.end(), [](std::byte b) { return b == kBlank; });
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t LogFile::makeBlank(std::uint64_t begin, std::uint64_t end) noexcept {
    try {
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
