// Reading, writing and committing. The life of a journal is in journaled_device_life.cpp.
#include "core/journal/journaled_device.hpp"

#include "core/journal/page_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kRunPagesMax = 256; ///< pages read or written in one go

} // namespace

// ---- Reading and writing -----------------------------------------------------------------------

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
    // Pending content is newer than the home location, so it is copied over what was read.
    for (auto page = pending_.lower_bound(offset / kPage);
         page != pending_.end() && page->first * kPage < offset + length; ++page) {
        const std::uint64_t start = page->first * kPage;
        const std::uint64_t from = std::max(start, offset);
        const std::uint64_t to = std::min(start + kPage, offset + length);
        std::memcpy(destination + (from - offset), page->second->data() + (from - start),
                    to - from);
    }
    return 0;
}

std::uint64_t JournaledDevice::nextJournaled(std::uint64_t page) const noexcept {
    // Both must be asked: a page can be pending and not in a record yet, or in a record and home
    // already.
    const auto from = [&](const auto& pages) {
        const auto found = pages.lower_bound(page);
        return found == pages.end() ? UINT64_MAX : found->first;
    };
    return std::min(from(pending_), from(inJournal_));
}

std::int32_t JournaledDevice::write(const std::byte* source, std::uint64_t offset,
                                    std::uint64_t length) noexcept {
    if (!isOn_) {
        return inner_->write(source, offset, length);
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
    const std::uint64_t end = offset + length;
    for (std::uint64_t at = offset; at < end;) {
        // A page that a valid record has must not change behind the journal's back: a replay would
        // bring the record's content back, or find a stranger's and refuse.
        const std::uint64_t journaled = nextJournaled(at / kPage);
        const bool isJournaled = journaled == at / kPage;
        const std::uint64_t last = isJournaled ? journaled + 1 : journaled;
        const std::uint64_t next = last > end / kPage ? end : last * kPage;
        const std::byte* const from = source + (at - offset);
        // From here on the next record must wait for a sync of the device, as it may make these
        // clusters reachable. The remembered checksums go before the write: it may fail half-way.
        if (!isJournaled) {
            bypassedSinceSync_ = true;
            sums_.forget(at, next - at);
        }
        const std::int32_t error =
            isJournaled ? buffer(from, at, next - at) : inner_->write(from, at, next - at);
        if (error != 0) {
            return error;
        }
        at = next;
    }
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
        // One record carries all that waits, so no more may wait than a record can carry.
        if (pending_.size() >= journal_->capacity()) {
            if (const std::int32_t error = sync(); error != 0) {
                return error;
            }
        }
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
    if constexpr (kAssertions) {
        for (const auto& [page, content] : pending_) {
            TAVELIN_ASSERT(content != nullptr && page * kPage < size());
            TAVELIN_ASSERT(!journal_->overlaps(page * kPage, kPage));
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
    return isOn_ ? Backlog{pending_.size(), journal_->capacity()} : Backlog{};
}

// ---- Committing --------------------------------------------------------------------------------

std::int32_t JournaledDevice::sync() noexcept {
    if (!isOn_ || pending_.empty() || bypassedSinceSync_) {
        // Three cases need the device's own sync here: no journal, nothing to commit but earlier
        // writes to make durable, and bulk data, which must be durable before a record makes it
        // reachable.
        const std::int32_t error = inner_->sync();
        // After a failed sync the data may not be durable, so the next sync starts here again and
        // no record is written meanwhile.
        bypassedSinceSync_ = bypassedSinceSync_ && error != 0;
        if (error != 0 || !isOn_) {
            return error;
        }
    }
    return pending_.empty() ? 0 : commit();
}

std::int32_t JournaledDevice::sumHome(std::vector<JournalEntry>& entries,
                                      const std::vector<bool>& isKnown) {
    std::vector<std::byte> run;
    for (std::size_t first = 0; first < entries.size();) {
        // Its checksums are remembered or in the last record, so the home location need not be
        // read.
        if (isKnown[first]) {
            ++first;
            continue;
        }
        // Neighbouring pages are read in one call. Pages of one directory or of the file table lie
        // side by side, and a read per page would make a sync slow.
        std::size_t end = first + 1;
        while (end < entries.size() && !isKnown[end] && end - first < kRunPagesMax &&
               entries[end].page == entries[first].page + (end - first)) {
            ++end;
        }
        const std::uint64_t start = entries[first].page * kPage;
        // Zeroed, because a device may end within its last page: what it lacks there counts as zero
        // in records.
        run.assign((end - first) * kPage, std::byte{0});
        const std::uint64_t length = std::min(run.size(), size() - start);
        const std::int32_t failed = inner_->read(run.data(), start, length);
        if (failed != 0 && (failed != EIO || !readsSectors_)) {
            // Fails this sync once, as the fault may be passing and a retry may read the page. If
            // it is not, the next sync reads sector by sector: one bad sector must not keep all
            // later changes from the disk.
            readsSectors_ = failed == EIO;
            return failed;
        }
        for (std::size_t i = first; i < end; ++i) {
            // After EIO the run is read again page by page, to find the sectors that are lost.
            DevicePage page{};
            std::uint8_t lost = 0;
            if (failed == 0) {
                std::memcpy(page.data(), run.data() + (i - first) * kPage, kPage);
            } else if (const auto error = readPage(*inner_, entries[i].page, page, lost);
                       error != 0) {
                return error;
            }
            // A lost sector counts as zeros here, and replay replaces a sector that cannot be read
            // whatever its checksum is.
            entries[i].before = sectorSums(page.data());
        }
        first = end;
    }
    return 0;
}

std::int32_t JournaledDevice::describePending(std::vector<JournalEntry>& entries) {
    std::vector<bool> isKnown;
    entries.reserve(pending_.size());
    isKnown.reserve(pending_.size());
    for (const auto& [page, content] : pending_) {
        const auto journaled = inJournal_.find(page);
        // The page's last record is asked first. After a failed home write the device may have
        // older content than that record, and replay accepts any state that a record names, so the
        // chain of states must have no gap.
        const SectorSums* const before =
            journaled != inJournal_.end() ? &journaled->second : sums_.find(page);
        entries.push_back({.page = page,
                           .before = before != nullptr ? *before : SectorSums{},
                           .after = sectorSums(content->data())});
        isKnown.push_back(before != nullptr);
    }
    // What is neither in a record nor remembered must be read from the device before it is
    // replaced.
    return sumHome(entries, isKnown);
}

std::int32_t JournaledDevice::commit() noexcept {
    TAVELIN_ASSERT(!pending_.empty() && pending_.size() <= journal_->capacity());
    try {
        // The session begins with the first sync that has something to write. On error nothing has
        // left pending_, and the next sync tries again; that holds for every return before the
        // record is committed.
        if (const std::int32_t error = journal_->begin(); error != 0) {
            return error;
        }
        // Room is made by declaring the old records obsolete, which requires their pages to be home
        // and durable.
        if (!journal_->fits(pending_.size())) {
            if (const std::int32_t error = reset(); error != 0) {
                return error;
            }
        }
        // The checksums are taken after the reset: it may write home what a failed home write left
        // out, and so change what the new record replaces.
        std::vector<JournalEntry> entries;
        if (const std::int32_t error = describePending(entries); error != 0) {
            return error;
        }
        // A cut during the append leaves a record that is not whole, which ends the journal before
        // it.
        if (const std::int32_t error = journal_->append(pending_, entries); error != 0) {
            return error;
        }
        // The commit point. A cut before this returns may lose the whole record; after it the next
        // mount replays it.
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
        journal_->commit();
        // The sync has succeeded although pages may still fail to go home. Until all of them are
        // there none may leave pending_: reads are answered from it, and a failed home write is
        // repeated from it.
        checkpointPending_ = true;
        for (const JournalEntry& entry : entries) {
            // Bulk writes to these pages must go through the journal from now on, or a replay would
            // undo them.
            inJournal_[entry.page] = entry.after;
        }
        // Without a sync of the device behind it: the record covers these pages until reset() has
        // synced them.
        if (const std::int32_t error = writeHome(pending_); error != 0) {
            return error;
        }
        for (const JournalEntry& entry : entries) {
            // The home location now has this content, so a later change of the page needs no read.
            sums_.note(entry.page, entry.after);
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    // The record is home. A sync that follows starts with nothing pending.
    pending_.clear();
    checkpointPending_ = readsSectors_ = false;
    return 0;
}

std::int32_t JournaledDevice::writeHome(const PageMap& pages) noexcept {
    try {
        std::vector<std::span<const std::byte>> run;
        for (auto page = pages.begin(); page != pages.end();) {
            const std::uint64_t first = page->first;
            run.clear();
            for (; page != pages.end() && page->first == first + run.size() &&
                   run.size() < kRunPagesMax;
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

std::int32_t JournaledDevice::reset() noexcept {
    if (checkpointPending_) {
        // A home write failed earlier. The records' own copies go home and not the pending pages:
        // those may be newer, and newer content must not be home before a record has it.
        PageMap committed;
        if (const std::int32_t error = journal_->readCommitted(committed); error != 0) {
            return error;
        }
        if (const std::int32_t error = writeHome(committed); error != 0) {
            return error;
        }
        checkpointPending_ = false;
    }
    // Home writes since the last reset may still be in the device's own cache. They must be durable
    // before the records that could repeat them become invalid.
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    if (const std::int32_t error = journal_->reset(); error != 0) {
        return error;
    }
    // No record is valid any more, so nothing can be replayed over a bulk write.
    inJournal_.clear();
    return 0;
}

} // namespace tavelin
