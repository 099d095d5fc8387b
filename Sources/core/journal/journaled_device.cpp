// Reading and writing. Committing, the dirty flag and the life of a journal are in other files.
#include "core/journal/journaled_device.hpp"

#include "core/journal/page_reader.hpp"
#include "core/observed_device.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavelin {

namespace {

// Copies what waits over what was read from the home locations, which is older.
void overlay(const PageMap& pages, std::byte* destination, std::uint64_t offset,
             std::uint64_t length) noexcept {
    for (auto page = pages.lower_bound(offset / LogFile::kPage);
         page != pages.end() && page->first * LogFile::kPage < offset + length; ++page) {
        const std::uint64_t start = page->first * LogFile::kPage;
        const std::uint64_t from = std::max(start, offset);
        const std::uint64_t to = std::min(start + LogFile::kPage, offset + length);
        std::memcpy(destination + (from - offset), page->second->data() + (from - start),
                    to - from);
    }
}

bool hasPageIn(const PageMap& pages, std::uint64_t offset, std::uint64_t length) noexcept {
    const auto page = pages.lower_bound(offset / LogFile::kPage);
    return page != pages.end() && page->first * LogFile::kPage < offset + length;
}

std::shared_ptr<BlockDevice> watched(std::shared_ptr<BlockDevice> device) {
    return device->allowsReadsBeside() ? std::make_shared<ObservedDevice>(std::move(device))
                                       : std::move(device);
}

} // namespace

JournaledDevice::JournaledDevice(std::shared_ptr<BlockDevice> inner)
    : inner_(watched(std::move(inner))), observed_(dynamic_cast<ObservedDevice*>(inner_.get())) {}

ObservedDevice* JournaledDevice::observed(std::uint64_t offset, std::uint64_t length) noexcept {
    const bool isHome = !hasPageIn(pending_, offset, length) &&
                        !hasPageIn(fileData_, offset, length) &&
                        !(journal_ && journal_->overlaps(offset, length));
    return isHome ? observed_ : nullptr;
}

void JournaledDevice::awaitReadsBeside() noexcept {
    if (observed_ != nullptr) {
        observed_->awaitReadings();
    }
}

std::int32_t JournaledDevice::readWithoutLog(std::byte* destination, std::uint64_t offset,
                                             std::uint64_t length) noexcept {
    // Only a $LogFile with a sector that cannot be read is read around. The library reads the file
    // when it opens the volume, and would fail the mount with the EIO of that sector.
    if (!hidesLog_ || !journal_->overlaps(offset, length)) {
        return inner_->read(destination, offset, length);
    }
    for (std::uint64_t done = 0; done < length;) {
        const std::uint64_t at = offset + done;
        const std::uint64_t count = std::min(length - done, kPage - at % kPage);
        // Extents of $LogFile are whole pages, so a page is in it or is not.
        const std::int32_t error =
            journal_->overlaps(at, count) ? 0 : inner_->read(destination + done, at, count);
        if (error != 0) {
            return error;
        }
        done += count;
    }
    return 0;
}

std::int32_t JournaledDevice::read(std::byte* destination, std::uint64_t offset,
                                   std::uint64_t length) noexcept {
    if (const auto error = readWithoutLog(destination, offset, length); error != 0) {
        return error;
    }
    if (isOn_ || hidesLog_) {
        // The records are ours alone. The library reads $LogFile again when it reopens the volume
        // after a failed operation, and would take them for a damaged journal of Windows and refuse
        // the volume.
        journal_->showBlank(destination, offset, length);
    }
    if (isOn_ && length <= NTB_CACHED_BYTES_MAX) {
        // The bridge's cache takes the page from here and may change it: the record of that change
        // will need the checksums of what the home location had. So only whole pages count, and
        // they are noted before pending content is laid over them below.
        const std::uint64_t end = offset + length;
        for (std::uint64_t at = (offset + kPage - 1) / kPage * kPage; at + kPage <= end;
             at += kPage) {
            sums_.note(at / kPage, destination + (at - offset));
        }
    }
    overlay(fileData_, destination, offset, length);
    overlay(pending_, destination, offset, length);
    return 0;
}

std::uint64_t JournaledDevice::nextJournaled(std::uint64_t page) const noexcept {
    // All must be asked: a page can be pending and not in a record yet, or in a record and home
    // already.
    const auto from = [&](const auto& pages) {
        const auto found = pages.lower_bound(page);
        return found == pages.end() ? UINT64_MAX : found->first;
    };
    const auto named = std::lower_bound(named_.begin(), named_.end(), page);
    return std::min({from(pending_), from(inJournal_), from(fileData_),
                     named == named_.end() ? UINT64_MAX : *named});
}

std::int32_t JournaledDevice::write(const std::byte* source, std::uint64_t offset,
                                    std::uint64_t length) noexcept {
    if (!isOn_) {
        return writeUnjournaled(source, offset, length);
    }
    TAVELIN_ASSERT(length > 0 && offset + length <= size());
    // The library never writes to $LogFile after the mount, and no other file owns these clusters.
    // A write here means a damaged run list, and would overwrite the records that a replay depends
    // on.
    if (journal_->overlaps(offset, length)) {
        return EIO;
    }
    // Length alone does not tell bulk data: the cache also writes back in runs over 64 KiB. Those
    // may be metadata, which must not reach its home before a record has it.
    if (!expectsBulkData_ || length <= NTB_CACHED_BYTES_MAX) {
        return buffer(source, offset, length);
    }
    return writeAround(source, offset, length);
}

std::int32_t JournaledDevice::writeAround(const std::byte* source, std::uint64_t offset,
                                          std::uint64_t length) noexcept {
    const std::uint64_t end = offset + length;
    for (std::uint64_t at = offset; at < end;) {
        if (const std::int32_t error = limitCarried(at / kPage); error != 0) {
            return error;
        }
        // A page that a valid record has must not change behind the journal's back: a replay would
        // bring the record's content back, or find a stranger's and refuse.
        const std::uint64_t journaled = nextJournaled(at / kPage);
        const bool goesAround = journaled != at / kPage;
        const std::uint64_t last = goesAround ? journaled : journaled + 1;
        const std::uint64_t next = last > end / kPage ? end : last * kPage;
        const std::byte* const from = source + (at - offset);
        // From here on the next record must wait for a sync of the device, as it may make these
        // clusters reachable. The remembered checksums go before the write: it may fail half-way.
        if (goesAround) {
            bypassedSinceSync_ = true;
            sums_.forget(at, next - at);
        }
        const std::int32_t error =
            goesAround ? inner_->write(from, at, next - at) : buffer(from, at, next - at);
        if (error != 0) {
            return error;
        }
        at = next;
    }
    return 0;
}

std::int32_t JournaledDevice::discard(std::uint64_t offset, std::uint64_t length) noexcept {
    TAVELIN_ASSERT(length > 0 && offset + length <= size());
    TAVELIN_ASSERT(pending_.empty() && fileData_.empty() && !(isOn_ && journal_->isBegun()));
    if (journal_ && journal_->overlaps(offset, length)) {
        return EIO; // the bitmap calls $LogFile free, so it is damaged
    }
    // What a later record says a page was before is read anew, and must not be older than this: the
    // next record therefore waits for a sync of the device.
    sums_.forget(offset, length);
    bypassedSinceSync_ = bypassedSinceSync_ || isOn_;
    return inner_->discard(offset, length);
}

bool JournaledDevice::isJournaled(std::uint64_t page) const noexcept {
    return inJournal_.contains(page) || std::binary_search(named_.begin(), named_.end(), page);
}

std::int32_t JournaledDevice::writeFileData(const std::byte* source, std::uint64_t offset,
                                            std::uint64_t length) noexcept {
    if (!isOn_ || offset % kPage != 0 || length % kPage != 0) {
        return write(source, offset, length);
    }
    TAVELIN_ASSERT(length > 0 && offset + length <= size());
    if (journal_->overlaps(offset, length)) {
        return EIO; // see write()
    }
    try {
        std::uint64_t done = 0;
        // Once the device has to sync before the record, there is no need to name anything.
        for (; done < length && !bypassedSinceSync_; done += kPage) {
            if (const auto error = keepFileData((offset + done) / kPage, source + done);
                error != 0) {
                return error;
            }
        }
        return done < length ? writeAround(source + done, offset + done, length - done) : 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t JournaledDevice::limitCarried(std::uint64_t page) noexcept {
    const bool isCarried = isJournaled(page) && !pending_.contains(page);
    // File data must leave room for the metadata of the same flush. Where no record is valid none
    // of it has to be carried.
    return isCarried && pending_.size() >= capacity() / 2 ? reset() : 0;
}

std::int32_t JournaledDevice::keepFileData(std::uint64_t page, const std::byte* source) {
    if (const std::int32_t error = limitCarried(page); error != 0) {
        return error;
    }
    // A page that waits for a record stays with it, so that it waits in one place only.
    if (pending_.contains(page) || isJournaled(page)) {
        return bufferPart(page, source, 0, kPage);
    }
    if (const auto waiting = fileData_.find(page); waiting != fileData_.end()) {
        std::memcpy(waiting->second->data(), source, kPage);
        return 0;
    }
    if (fileData_.size() >= journal_->namedCapacity()) {
        // File data may be home at any time before the record. Unnamed, it must be synced first.
        bypassedSinceSync_ = true;
        if (const std::int32_t error = writePages(fileData_); error != 0) {
            return error;
        }
        fileData_.clear();
    }
    auto content = std::make_unique_for_overwrite<DevicePage>();
    std::memcpy(content->data(), source, kPage);
    fileData_.emplace(page, std::move(content));
    return 0;
}

std::int32_t JournaledDevice::buffer(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept {
    try {
        for (std::uint64_t done = 0; done < length;) {
            const std::uint64_t at = offset + done;
            const std::uint64_t count = std::min(length - done, kPage - at % kPage);
            if (const auto error = bufferPart(at / kPage, source + done, at % kPage, count);
                error != 0) {
                return error;
            }
            done += count;
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t JournaledDevice::bufferPart(std::uint64_t page, const std::byte* source,
                                         std::uint64_t inPage, std::uint64_t length) {
    auto waiting = pending_.find(page);
    if (waiting == pending_.end()) {
        // One record carries all that waits, so no more may wait than a record can carry. Room for
        // the pages of the dirty flag is always left, and only the commit itself takes it.
        if (isOn_ && !isCommitting_ && pending_.size() >= capacity()) {
            if (const std::int32_t error = syncPending(true); error != 0) {
                return error;
            }
        }
        if (auto data = fileData_.extract(page); !data.empty()) {
            // The page is file data no more, or the write is no whole page of it. What waited for
            // it goes with the record now.
            waiting = pending_.insert(std::move(data)).position;
        } else {
            auto content = std::make_unique<DevicePage>();
            const std::uint64_t whole = pageBytes(*this, page);
            if (length < whole) {
                const auto error = inner_->read(content->data(), page * kPage, whole);
                if (error != 0) {
                    return error;
                }
            }
            waiting = pending_.emplace(page, std::move(content)).first;
        }
    }
    TAVELIN_ASSERT(inPage + length <= kPage);
    std::memcpy(waiting->second->data() + inPage, source, length);
    return 0;
}

void JournaledDevice::checkInvariants() const noexcept {
    TAVELIN_ASSERT(!isOn_ || journal_.has_value());
    // More could not be committed as one record, and the sync would not be atomic.
    TAVELIN_ASSERT(!isOn_ || pending_.size() <= journal_->capacity());
    // The pages of the record that is not home yet are pending, so there are some.
    TAVELIN_ASSERT(!checkpointPending_ || !pending_.empty());
    // Pages can only be in valid records while a session is under way.
    TAVELIN_ASSERT(inJournal_.empty() || (isOn_ && journal_->isBegun()));
    // More could not be named by one record.
    TAVELIN_ASSERT(fileData_.empty() || (isOn_ && fileData_.size() <= journal_->namedCapacity()));
    TAVELIN_ASSERT(named_.empty() || (isOn_ && journal_->isBegun()));
    if constexpr (kAssertions) {
        for (const auto& [page, content] : pending_) {
            TAVELIN_ASSERT(content != nullptr && page * kPage < size());
            TAVELIN_ASSERT(!journal_->overlaps(page * kPage, kPage));
        }
        for (const auto& [page, content] : fileData_) {
            TAVELIN_ASSERT(content != nullptr && (page + 1) * kPage <= size());
            TAVELIN_ASSERT(!isJournaled(page) && !journal_->overlaps(page * kPage, kPage));
        }
        for (const auto& [page, sums] : inJournal_) {
            TAVELIN_ASSERT(page * kPage < size());
        }
    }
    if (isOn_) {
        journal_->checkInvariants();
    }
}

BlockDevice::Backlog JournaledDevice::backlog() const noexcept {
    // Without a journal nothing waits and there is no limit to stay below.
    // The flag's pages, for which there is always room, do not count.
    return isOn_ ? Backlog{std::min<std::uint64_t>(pending_.size(), capacity()), capacity()}
                 : Backlog{};
}

} // namespace tavelin
