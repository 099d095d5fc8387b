// Committing what waits as one record.
#include "core/journal/journaled_device.hpp"
#include "core/journal/page_reader.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace tavelin {

std::int32_t JournaledDevice::sync() noexcept {
    return syncPending(false);
}

std::int32_t JournaledDevice::syncPending(bool isPart) noexcept {
    if (!isOn_) {
        return inner_->sync();
    }
    if (pending_.empty() || bypassedSinceSync_) {
        // Two cases need the device's own sync here: no record to write, and file data that no
        // record will name, which must be durable before one makes it reachable.
        if (const std::int32_t error = writePages(fileData_); error != 0) {
            return error;
        }
        // After a failed sync the data may not be durable, so the next sync starts here again and
        // no record is written meanwhile.
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
        bypassedSinceSync_ = false;
        fileData_.clear();
    }
    if (pending_.empty()) {
        return 0;
    }
    if (isAbandoned_) {
        return leaveJournal();
    }
    isCommitting_ = true;
    std::int32_t error = commit(isPart);
    if (error == EIO && journal_->isUnwritable()) {
        error = abandonJournal();
    }
    isCommitting_ = false;
    return error;
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
    entries.reserve(pending_.size() + fileData_.size());
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

void JournaledDevice::nameFileData(std::vector<JournalEntry>& entries,
                                   std::vector<std::uint64_t>& named) {
    named.reserve(fileData_.size());
    for (const auto& [page, content] : fileData_) {
        // What was there before is of no interest: nothing will ever be put back or replaced there.
        entries.push_back({.page = page, .before = {}, .after = sectorSums(content->data())});
        named.push_back(page);
        sums_.note(page, entries.back().after);
    }
}

std::int32_t JournaledDevice::commit(bool isPart) noexcept {
    TAVELIN_ASSERT(!pending_.empty() && pending_.size() <= journal_->capacity());
    try {
        if (const std::int32_t error = beginSession(); error != 0) {
            return error;
        }
        // Room is made by declaring the old records obsolete, which requires their pages to be home
        // and durable.
        if (!journal_->fits(pending_.size() + missingFlagPages(), fileData_.size())) {
            if (const std::int32_t error = reset(); error != 0) {
                return error;
            }
        }
        if (const std::int32_t error = carryFlag(); error != 0) {
            return error;
        }
        // The checksums are taken after the reset: it may write home what a failed home write left
        // out, and so change what the new record replaces.
        std::vector<JournalEntry> entries;
        if (const std::int32_t error = describePending(entries); error != 0) {
            return error;
        }
        // The file data goes first, and the sync below carries both. The device may keep the record
        // alone, if the power goes: by the checksums it is then known not to be whole. The dirty
        // flag may still be missing at home: it tells of structures that contradict each other, and
        // file data changes none.
        if (const std::int32_t error = writePages(fileData_); error != 0) {
            return error;
        }
        std::vector<std::uint64_t> named;
        nameFileData(entries, named);
        // A cut during the append leaves a record that is not whole, which ends the journal before
        // it.
        if (const std::int32_t error = journal_->append(pending_, entries, isPart); error != 0) {
            return error;
        }
        // The commit point. A cut before this returns may lose the whole record; after it the next
        // mount replays it.
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
        journal_->commit();
        // The record before may now lose the data that it names. The new one may not, until the
        // next has been synced.
        named_.swap(named);
        fileData_.clear();
        entries.resize(pending_.size());
        return bringHome(entries);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t JournaledDevice::bringHome(std::span<const JournalEntry> carried) {
    TAVELIN_ASSERT(carried.size() == pending_.size());
    // The sync has succeeded although pages may still fail to go home. Until all of them are there
    // none may leave pending_: reads are answered from it, and a failed home write is repeated from
    // it.
    checkpointPending_ = true;
    for (const JournalEntry& entry : carried) {
        // Bulk writes to these pages must go through the journal from now on, or a replay would
        // undo them.
        inJournal_[entry.page] = entry.after;
    }
    // Without a sync of the device behind it: the record covers these pages until reset() has
    // synced them.
    if (const std::int32_t error = writeHome(pending_); error != 0) {
        return error;
    }
    for (const JournalEntry& entry : carried) {
        // The home location now has this content, so a later change of the page needs no read.
        sums_.note(entry.page, entry.after);
    }
    // The record is home. A sync that follows starts with nothing pending.
    pending_.clear();
    checkpointPending_ = readsSectors_ = false;
    return 0;
}

} // namespace tavelin
