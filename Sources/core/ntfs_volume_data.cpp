// File data and extended attributes.
#include "core/ntfs_volume.hpp"
#include "core/observed_device.hpp"
#include "core/private/bridge_attributes.hpp"
#include "core/private/bridge_text.hpp"
#include "core/private/data_change.hpp"
#include "core/private/listing_box.hpp"
#include "core/reparse_tags.hpp"
#include "diagnostics/log.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint32_t kLoggedRefusalsMax = 20; ///< of one mount: a copied tree may have millions
constexpr std::size_t kPartialBytesMin = 4096;   ///< less is not worth another try
/// Bytes that the bridge may keep back for metadata on a volume that is nearly full.
constexpr std::uint64_t kRoomKeptMax = 1 << 20;

using NameBox = ListingBox<std::vector<std::string>>;

std::int32_t appendName(void* context, const char* name) noexcept {
    return NameBox::of(context, name).append([&](std::vector<std::string>& names) {
        names.emplace_back(name);
    });
}

} // namespace

void NTFSVolume::checkData(std::int32_t result, std::uint64_t ino, std::string_view what) {
    if ((result == EOPNOTSUPP || result == EACCES) && refusals_.fetch_add(1) < kLoggedRefusalsMax) {
        ntb_attr item{};
        std::string reason;
        if (locked([&](ntb_vol* vol) { return ntb_getattr(vol, ino, &item); }) == 0) {
            reason = explainRefusal(static_cast<NTFSDataState>(item.data_state), item.reparse_tag);
        }
        if (!reason.empty()) {
            log().error(std::string("file ")
                            .append(std::to_string(recordNumber(ino)))
                            .append(" was not ")
                            .append(what)
                            .append(": ")
                            .append(reason));
        }
    }
    check(result);
}

/// A read of file data that goes on after the lock was released.
class NTFSVolume::ReadBeside {
  public:
    /// Begins it, under the lock; false where it has to be read under the lock as well.
    bool begin(BlockDevice& device, ntb_vol* vol, std::uint64_t ino, std::uint64_t offset,
               std::size_t length) {
        std::uint32_t count = 0;
        if (ntb_plan_read(vol, ino, offset, length, places_.data(), kPlacesMax, &count) != 0) {
            return false;
        }
        const std::span<ntb_extent> places(places_.data(), count);
        for (const ntb_extent& place : places) {
            done_ += place.length;
        }
        // The device reads whole blocks, so the last one is read to its end where there is room.
        // Others must end with a block, as must all begin.
        const std::uint64_t block = std::max<std::uint64_t>(device.blockSize(), 1);
        surplus_ = (block - places.back().length % block) % block;
        places.back().length += surplus_;
        if (done_ + surplus_ > length) {
            return false;
        }
        ObservedDevice* observed = nullptr;
        for (const ntb_extent& place : places) {
            observed = place.offset % block == 0 && place.length % block == 0 &&
                               place.offset + place.length <= device.size()
                           ? device.observed(place.offset, place.length)
                           : nullptr;
            if (observed == nullptr) {
                return false;
            }
        }
        reading_.emplace(*observed, places);
        ntb_note_reads(vol, count, done_ + surplus_);
        return true;
    }
    bool isUnderWay() const noexcept { return reading_.has_value(); }
    /// Ends it, without the lock. The count; absent where the bytes may not be the file's.
    std::optional<std::size_t> end(std::byte* destination) {
        const bool isRead = reading_->read(destination) == 0 && reading_->isIntact();
        reading_.reset();
        if (!isRead) {
            return std::nullopt;
        }
        std::fill_n(destination + done_, surplus_, std::byte{0}); // nobody's business
        return static_cast<std::size_t>(done_);
    }

  private:
    /// Files in more pieces are read under the lock, through the bridge's cache.
    static constexpr std::uint32_t kPlacesMax = 64;
    std::array<ntb_extent, kPlacesMax> places_;
    std::uint64_t done_ = 0;    ///< bytes that the file has there
    std::uint64_t surplus_ = 0; ///< and that are read behind them
    std::optional<ObservedDevice::Reading> reading_;
};

std::size_t NTFSVolume::read(std::uint64_t ino, std::uint64_t offset, std::byte* destination,
                             std::size_t length) {
    std::uint64_t done = 0;
    ReadBeside beside;
    const auto request = [&](ntb_vol* vol, bool mayGoBeside) {
        return mayGoBeside && beside.begin(*box_.device, vol, ino, offset, length)
                   ? 0
                   : ntb_read(vol, ino, offset, destination, length, &done);
    };
    // Shorter reads come out of the bridge's cache, or into it.
    const bool isLong = length > NTB_CACHED_BYTES_MAX;
    std::int32_t result = locked([&](ntb_vol* vol) { return request(vol, isLong); });
    if (beside.isUnderWay()) {
        if (const std::optional<std::size_t> count = beside.end(destination)) {
            return *count;
        }
        result = locked([&](ntb_vol* vol) { return request(vol, false); });
    }
    checkData(result, ino, "read");
    return static_cast<std::size_t>(done);
}

std::vector<std::byte> NTFSVolume::read(std::uint64_t ino, std::uint64_t offset,
                                        std::size_t length) {
    std::vector<std::byte> data(length);
    data.resize(read(ino, offset, data.data(), data.size()));
    return data;
}

NTFSWrite NTFSVolume::write(std::uint64_t ino, std::uint64_t offset,
                            std::span<const std::byte> data, bool isDescribed) {
    NTFSWrite written;
    if (data.empty()) {
        return written;
    }
    std::uint64_t done = 0;
    const auto request = [&](ntb_vol* vol) {
        const auto attempt = [&](std::size_t length) {
            return changeData(*box_.device, vol, ino, [&] {
                const BulkWriteScope bulk(*box_.device, vol, length);
                return ntb_write(vol, ino, offset, data.data(), length, &done);
            });
        };
        std::int32_t error = attempt(data.size());
        // The bridge takes back what does not fit, so that nothing is left of it. A program expects
        // a full volume to take what there is room for. A device may answer the same error, and
        // then less does not help.
        const bool isFull = error == ENOSPC && freeBytesOf(vol) < data.size() + kRoomKeptMax;
        for (std::size_t length = data.size() / 2;
             isFull && error == ENOSPC && done == 0 && length >= kPartialBytesMin; length /= 2) {
            error = attempt(length);
        }
        if (isDescribed) {
            written.item = attributesAfter(vol, ino);
            written.freeBytes = freeBytesOf(vol);
        }
        return error == ENOSPC && done != 0 && done < data.size() ? 0 : error;
    };
    std::int32_t result = locked(request);
    while (result == ENODATA) {
        initialise(ino, offset);
        result = locked(request);
    }
    checkData(result, ino, "written");
    TAVELIN_ASSERT(done <= data.size());
    written.count = static_cast<std::size_t>(done);
    return written;
}

void NTFSVolume::truncate(std::uint64_t ino, std::uint64_t size) {
    const std::int32_t result = locked([&](ntb_vol* vol) {
        return changeData(*box_.device, vol, ino, [&] { return ntb_truncate(vol, ino, size); });
    });
    checkData(result, ino, "truncated");
}

void NTFSVolume::flush(std::uint64_t ino) {
    check(locked([&](ntb_vol* vol) { return ntb_flush(vol, ino); }));
}

std::vector<std::string> NTFSVolume::xattrNames(std::uint64_t ino) {
    NameBox box;
    const std::int32_t result =
        locked([&](ntb_vol* vol) { return ntb_listxattr(vol, ino, appendName, &box); });
    box.rethrowFailure();
    check(result);
    return std::move(box.items);
}

std::vector<std::byte> NTFSVolume::xattr(std::string_view name, std::uint64_t ino) {
    const BridgeText text(name);
    return locked([&](ntb_vol* vol) -> std::vector<std::byte> {
        void* buffer = nullptr;
        std::uint64_t size = 0;
        check(ntb_xattr_size(vol, ino, text.cString(), &size));
        if (size > kXattrBytesMax) {
            throw NTFSError(kE2BIG);
        }
        check(ntb_getxattr(vol, ino, text.cString(), &buffer, &size));
        const BridgeOwned<void> owned(buffer);
        const auto* bytes = static_cast<const std::byte*>(buffer);
        return {bytes, bytes + size};
    });
}

std::uint64_t NTFSVolume::xattrSize(std::string_view name, std::uint64_t ino) {
    const BridgeText text(name);
    std::uint64_t size = 0;
    check(locked([&](ntb_vol* vol) { return ntb_xattr_size(vol, ino, text.cString(), &size); }));
    return size;
}

void NTFSVolume::setXattr(std::string_view name, std::uint64_t ino,
                          std::span<const std::byte> value, XattrPolicy policy) {
    if (value.size() > kXattrBytesMax) {
        throw NTFSError(kE2BIG);
    }
    const BridgeText text(name);
    check(locked([&](ntb_vol* vol) {
        return ntb_setxattr(vol, ino, text.cString(), value.data(), value.size(),
                            static_cast<std::int32_t>(policy));
    }));
}

void NTFSVolume::removeXattr(std::string_view name, std::uint64_t ino) {
    const BridgeText text(name);
    check(locked([&](ntb_vol* vol) {
        const std::int32_t error = ntb_removexattr(vol, ino, text.cString());
        // The stream that a system-compressed file is in goes when the file is decompressed.
        return error == EOPNOTSUPP ? decompress(*box_.device, vol, ino) : error;
    }));
}

} // namespace tavelin
