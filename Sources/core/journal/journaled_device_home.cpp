// Writing home what a record has, and the dirty flag that tells other systems of it.
#include "core/device_box.hpp"
#include "core/journal/journaled_device.hpp"
#include "core/journal/page_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace tavelin {

// ---- The dirty flag ----------------------------------------------------------------------------

std::int32_t JournaledDevice::findFlag() noexcept {
    flagPages_.clear();
    DeviceBox box(inner_);
    const ntb_io io = makeIO(box);
    ntb_extent records[2];
    if (const std::int32_t error = ntb_volume_records(&io, records); error != 0) {
        return error == EINVAL ? 0 : error; // whether it is a volume at all, the mount tells
    }
    try {
        for (const ntb_extent& record : records) {
            // Small clusters may put a record across two pages.
            const std::uint64_t last = (record.offset + record.length - 1) / kPage;
            for (std::uint64_t page = record.offset / kPage; page <= last; ++page) {
                flagPages_.push_back(page);
            }
        }
        TAVELIN_ASSERT(flagPages_.size() <= kFlagPagesMax);
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

bool JournaledDevice::isFlagPage(std::uint64_t page) const noexcept {
    return std::find(flagPages_.begin(), flagPages_.end(), page) != flagPages_.end();
}

std::int32_t JournaledDevice::readFlag() noexcept {
    // From the device and not through pending_: the library may have read the record while the
    // flag was set here, and written it back as it was then.
    DeviceBox box(inner_);
    const ntb_io io = makeIO(box);
    std::uint16_t flags = 0;
    const std::int32_t error = ntb_volume_flags(&io, &flags);
    if (error != 0 && error != EINVAL) {
        return error;
    }
    // A volume without the flag has nothing to be told by; the mount judges it.
    isMarked_ = error == 0;
    isMarkHome_ = isMarked_ && (flags & kDirty) != 0;
    return 0;
}

std::int32_t JournaledDevice::writeFlag(bool isDirty) noexcept {
    for (const std::uint64_t page : flagPages_) {
        sums_.forget(page * kPage, kPage);
    }
    DeviceBox box(inner_);
    const ntb_io io = makeIO(box);
    const std::int32_t error = ntb_set_dirty(&io, isDirty ? 1 : 0);
    return error == EINVAL ? 0 : error;
}

std::int32_t JournaledDevice::putFlag(bool isDirty) noexcept {
    // The same over what is pending: reads see it, and what is changed becomes pending.
    const ntb_io io{
        .context = this,
        .read =
            [](void* device, void* to, std::uint64_t offset, std::uint64_t length) noexcept {
                return static_cast<JournaledDevice*>(device)->read(static_cast<std::byte*>(to),
                                                                   offset, length);
            },
        .write =
            [](void* device, const void* from, std::uint64_t offset,
               std::uint64_t length) noexcept {
                return static_cast<JournaledDevice*>(device)->buffer(
                    static_cast<const std::byte*>(from), offset, length);
            },
        .write_data = nullptr,
        .sync = nullptr,
        .size = size(),
        .block_size = blockSize()};
    const std::int32_t error = ntb_set_dirty(&io, isDirty ? 1 : 0);
    return error == EINVAL ? 0 : error;
}

std::int32_t JournaledDevice::beginSession() noexcept {
    // The session begins with the first sync that has something to write. On error nothing has left
    // pending_, and the next sync tries again; that holds for every return before the record is
    // committed.
    if (!journal_->isBegun()) {
        if (const std::int32_t error = readFlag(); error != 0) {
            return error;
        }
        if (const std::int32_t error = journal_->begin(isMarked_ && !isMarkHome_); error != 0) {
            return error;
        }
    }
    return 0;
}

std::uint64_t JournaledDevice::missingFlagPages() const noexcept {
    const auto missing = std::count_if(flagPages_.begin(), flagPages_.end(),
                                       [&](auto page) { return !pending_.contains(page); });
    return static_cast<std::uint64_t>(missing);
}

std::int32_t JournaledDevice::carryFlag() {
    if (!isMarked_) {
        return 0;
    }
    // The first record of each lap carries the flag's pages, changed or not. Replay clears the flag
    // of a session that set it, and so must learn whether another system has written there.
    for (const std::uint64_t page : flagPages_) {
        const std::byte nothing{};
        const bool isMissing = inJournal_.empty() && journal_->setsDirtyFlag();
        if (const auto error = isMissing ? bufferPart(page, &nothing, 0, 0) : 0; error != 0) {
            return error;
        }
    }
    // The library knows nothing of the flag: what it writes of these records must not clear it.
    return isMarkHome_ && missingFlagPages() == flagPages_.size() ? 0 : putFlag(true);
}

std::int32_t JournaledDevice::endSession() noexcept {
    if (keepsFlag_) {
        // The next mount would clear it for us, should the end be cut off behind the reset.
        journal_->leaveFlagSet();
    }
    if (const std::int32_t error = journal_->reset(); error != 0) {
        return error;
    }
    inJournal_.clear();
    named_.clear();
    // Everything is home and durable, so the flag goes back to what it was. That comes before the
    // last record goes: after a cut in between, the record tells the next mount to do it again. The
    // sync in end() makes it durable.
    if (journal_->clearsDirtyFlag()) {
        isMarkHome_ = false; // should the session go on, its next record sets it again
        if (const std::int32_t error = writeFlag(false); error != 0) {
            return error;
        }
    }
    if (const std::int32_t error = journal_->end(); error != 0) {
        return error;
    }
    isMarked_ = false;
    return 0;
}

std::int32_t JournaledDevice::writeUnjournaled(const std::byte* source, std::uint64_t offset,
                                               std::uint64_t length) noexcept {
    if (!marksAlone_) {
        return inner_->write(source, offset, length);
    }
    if (!isBusy_) {
        if (const std::int32_t error = readFlag(); error != 0) {
            return error;
        }
        isMarkOurs_ = isMarkOurs_ || (isMarked_ && !isMarkHome_);
        if (isMarkOurs_) {
            if (const std::int32_t error = writeFlag(true); error != 0) {
                return error;
            }
            if (const std::int32_t error = inner_->sync(); error != 0) {
                return error;
            }
        }
        isBusy_ = true;
    }
    const std::uint64_t last = (offset + length - 1) / kPage;
    const bool isTouched = std::any_of(flagPages_.begin(), flagPages_.end(), [&](auto page) {
        return page >= offset / kPage && page <= last;
    });
    return isTouched && isMarked_ ? writeMarked(source, offset, length)
                                  : inner_->write(source, offset, length);
}

std::int32_t JournaledDevice::writeMarked(const std::byte* source, std::uint64_t offset,
                                          std::uint64_t length) noexcept {
    // The flag is set in a copy of what is written, which lies over the device: there must be no
    // moment without it. What lies beside it has the flag already.
    struct Overlay {
        BlockDevice& device;
        const std::uint64_t offset;
        std::vector<std::byte> content;

        // What it has of [at, at + count): its own bytes, and their place in the range.
        std::pair<std::span<std::byte>, std::uint64_t> shared(std::uint64_t at,
                                                              std::uint64_t count) noexcept {
            const std::uint64_t begin = std::max(at, offset);
            const std::uint64_t end = std::min(at + count, offset + content.size());
            return begin < end ? std::pair(std::span(content).subspan(begin - offset, end - begin),
                                           begin - at)
                               : std::pair(std::span<std::byte>(), std::uint64_t{0});
        }
    };
    try {
        Overlay overlay{*inner_, offset, {source, source + length}};
        const ntb_io io{
            .context = &overlay,
            .read =
                [](void* context, void* to, std::uint64_t at, std::uint64_t count) noexcept {
                    auto& over = *static_cast<Overlay*>(context);
                    auto* const bytes = static_cast<std::byte*>(to);
                    const std::int32_t error = over.device.read(bytes, at, count);
                    const auto [own, place] = over.shared(at, count);
                    std::copy(own.begin(), own.end(), bytes + place);
                    return error;
                },
            .write =
                [](void* context, const void* from, std::uint64_t at,
                   std::uint64_t count) noexcept {
                    const auto [own, place] = static_cast<Overlay*>(context)->shared(at, count);
                    std::copy_n(static_cast<const std::byte*>(from) + place, own.size(),
                                own.begin());
                    return 0;
                },
            .write_data = nullptr,
            .sync = nullptr,
            .size = size(),
            .block_size = blockSize()};
        const std::int32_t error = ntb_set_dirty(&io, 1);
        return error != 0 && error != EINVAL
                   ? error
                   : inner_->write(overlay.content.data(), offset, length);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t JournaledDevice::settleUnjournaled() noexcept {
    if (!isBusy_) {
        return 0;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    if (isMarkOurs_ && !keepsFlag_) {
        if (const std::int32_t error = writeFlag(false); error != 0) {
            return error;
        }
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
    }
    isBusy_ = isMarkOurs_ = isMarked_ = false;
    return 0;
}

// ---- Home locations ----------------------------------------------------------------------------

std::int32_t JournaledDevice::writeFlagHome(const PageMap& pages) noexcept {
    // Other systems must learn that the volume may hold half a flush before it does.
    bool isAny = false;
    for (const std::uint64_t number : flagPages_) {
        const auto page = pages.find(number);
        if (page == pages.end()) {
            continue;
        }
        isAny = true;
        sums_.forget(number * kPage, kPage);
        const auto error =
            inner_->write(page->second->data(), number * kPage, pageBytes(*this, number));
        if (error != 0) {
            return error;
        }
    }
    if (const std::int32_t error = isAny ? inner_->sync() : 0; error != 0) {
        return error;
    }
    isMarkHome_ = true;
    return 0;
}

std::int32_t JournaledDevice::writeHome(const PageMap& pages) noexcept {
    const bool writesFlag = isMarked_ && !isMarkHome_;
    if (const std::int32_t error = writesFlag ? writeFlagHome(pages) : 0; error != 0) {
        return error;
    }
    return writePages(pages, writesFlag);
}

std::int32_t JournaledDevice::writePages(const PageMap& pages, bool exceptFlag) noexcept {
    const auto isHome = [&](std::uint64_t page) { return exceptFlag && isFlagPage(page); };
    try {
        std::vector<std::span<const std::byte>> run;
        for (auto page = pages.begin(); page != pages.end();) {
            if (isHome(page->first)) {
                ++page;
                continue;
            }
            const std::uint64_t first = page->first;
            run.clear();
            for (; page != pages.end() && page->first == first + run.size() &&
                   run.size() < kRunPagesMax && !isHome(page->first);
                 ++page) {
                run.push_back(std::span(*page->second).first(pageBytes(*this, page->first)));
            }
            // Before the write: one that fails may have changed any of them.
            sums_.forget(first * kPage, run.size() * kPage);
            if (const auto error = inner_->writeGathered(run, first * kPage); error != 0) {
                return error;
            }
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t JournaledDevice::finishHomeWrites() noexcept {
    if (!checkpointPending_) {
        return 0;
    }
    // A home write failed earlier. The records' own copies go home and not the pending pages: those
    // may be newer, and newer content must not be home before a record has it.
    PageMap committed;
    if (const std::int32_t error = journal_->readCommitted(committed); error != 0) {
        return error;
    }
    if (const std::int32_t error = writeHome(committed); error != 0) {
        return error;
    }
    checkpointPending_ = false;
    return 0;
}

std::int32_t JournaledDevice::reset() noexcept {
    if (const std::int32_t error = finishHomeWrites(); error != 0) {
        return error;
    }
    // Home writes since the last reset may still be in the device's own cache. They must be durable
    // before the records that could repeat them become invalid.
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    if (const std::int32_t error = journal_->reset(); error != 0) {
        return error;
    }
    // No record is valid any more, so nothing can be replayed over a bulk write, and no record
    // misses the data that it names.
    inJournal_.clear();
    named_.clear();
    return 0;
}

} // namespace tavelin
