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
        // The records are ours alone. The library, when it opens the volume again during the
        // session, would take them for a damaged journal of Windows's and refuse the volume.
        journal_->showBlank(destination, offset, length);
    }
    if (isOn_ && length <= NTB_CACHED_BYTES_MAX) {
        // On its way into the bridge's cache, where it may change: a record will have to say what
        // it was. Whole pages only, and before what waits hides what is home.
        const std::uint64_t end = offset + length;
        for (std::uint64_t at = (offset + kPage - 1) / kPage * kPage; at + kPage <= end;
             at += kPage) {
            sums_.note(at / kPage, destination + (at - offset));
        }
    }
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
    if (journal_->overlaps(offset, length)) {
        return EIO;
    }
    if (!hasFileData_ || length <= NTB_CACHED_BYTES_MAX) {
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
        if (!isJournaled) {
            hasGoneAhead_ = true;
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
    TAVELIN_ASSERT(!isOn_ || pending_.size() <= journal_->capacity());
    TAVELIN_ASSERT(!checkpointPending_ || !pending_.empty());
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
    return isOn_ ? Backlog{pending_.size(), journal_->capacity()} : Backlog{};
}

// ---- Committing --------------------------------------------------------------------------------

std::int32_t JournaledDevice::sync() noexcept {
    if (!isOn_ || pending_.empty() || hasGoneAhead_) {
        // File data is durable before a record makes it reachable.
        const std::int32_t error = inner_->sync();
        hasGoneAhead_ = hasGoneAhead_ && error != 0;
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
        if (isKnown[first]) {
            ++first;
            continue;
        }
        std::size_t end = first + 1;
        while (end < entries.size() && !isKnown[end] && end - first < kRunPagesMax &&
               entries[end].page == entries[first].page + (end - first)) {
            ++end;
        }
        const std::uint64_t start = entries[first].page * kPage;
        run.assign((end - first) * kPage, std::byte{0});
        const std::uint64_t length = std::min(run.size(), size() - start);
        const std::int32_t failed = inner_->read(run.data(), start, length);
        if (failed != 0 && (failed != EIO || !readsSectors_)) {
            // Answered once, like any error. The next try then takes what can be read.
            readsSectors_ = failed == EIO;
            return failed;
        }
        for (std::size_t i = first; i < end; ++i) {
            DevicePage page{};
            std::uint8_t lost = 0;
            if (failed == 0) {
                std::memcpy(page.data(), run.data() + (i - first) * kPage, kPage);
            } else if (const auto error = readPage(*inner_, entries[i].page, page, lost);
                       error != 0) {
                return error;
            }
            // A lost sector counts as zeros. It may be replaced for as long as it stays lost.
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
        // After a failed home write the device may have less than the last record: the record
        // decides, as the records before it tell what else may be there.
        const SectorSums* const before =
            journaled != inJournal_.end() ? &journaled->second : sums_.find(page);
        entries.push_back({.page = page,
                           .before = before != nullptr ? *before : SectorSums{},
                           .after = sectorSums(content->data())});
        isKnown.push_back(before != nullptr);
    }
    return sumHome(entries, isKnown);
}

std::int32_t JournaledDevice::commit() noexcept {
    TAVELIN_ASSERT(!pending_.empty() && pending_.size() <= journal_->capacity());
    try {
        if (const std::int32_t error = journal_->begin(); error != 0) {
            return error;
        }
        if (!journal_->fits(pending_.size())) {
            if (const std::int32_t error = reset(); error != 0) {
                return error;
            }
        }
        // Not earlier: a reset may write home what a failed home write has left out.
        std::vector<JournalEntry> entries;
        if (const std::int32_t error = describePending(entries); error != 0) {
            return error;
        }
        if (const std::int32_t error = journal_->append(pending_, entries); error != 0) {
            return error;
        }
        if (const std::int32_t error = inner_->sync(); error != 0) {
            return error;
        }
        journal_->commit();
        // From here on the record decides: until all its pages are home, none may leave pending_,
        // or a failed home write would have nothing to be repeated from.
        checkpointPending_ = true;
        for (const JournalEntry& entry : entries) {
            inJournal_[entry.page] = entry.after;
        }
        if (const std::int32_t error = writeHome(pending_); error != 0) {
            return error;
        }
        for (const JournalEntry& entry : entries) {
            sums_.note(entry.page, entry.after);
        }
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    pending_.clear();
    checkpointPending_ = readsSectors_ = false;
    return 0;
}

std::int32_t JournaledDevice::writeHome(const PageMap& pages) noexcept {
    try {
        std::vector<std::byte> run;
        for (auto page = pages.begin(); page != pages.end();) {
            const std::uint64_t first = page->first;
            run.clear();
            std::uint64_t length = 0;
            while (page != pages.end() && page->first == first + length && length < kRunPagesMax) {
                const auto count = static_cast<std::ptrdiff_t>(pageBytes(*this, page->first));
                run.insert(run.end(), page->second->begin(), page->second->begin() + count);
                ++page;
                ++length;
            }
            sums_.forget(first * kPage, run.size());
            if (const auto error = inner_->write(run.data(), first * kPage, run.size());
                error != 0) {
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
        // A home write failed earlier. The journal's own copies go home, not the pending ones:
        // those may be newer, and must not be home before a record has them.
        PageMap committed;
        if (const std::int32_t error = journal_->readCommitted(committed); error != 0) {
            return error;
        }
        if (const std::int32_t error = writeHome(committed); error != 0) {
            return error;
        }
        checkpointPending_ = false;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    if (const std::int32_t error = journal_->reset(); error != 0) {
        return error;
    }
    inJournal_.clear();
    return 0;
}

} // namespace tavelin
