#include "core/journal/journaled_device.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kRunPagesMax = 256; ///< pages written in one go

} // namespace

// ---- Life --------------------------------------------------------------------------------------

std::int32_t JournaledDevice::replay(bool readOnly) noexcept {
    isOn_ = false;
    pending_.clear();
    inJournal_.clear();
    journal_.reset();
    recovered_ = 0;
    std::int32_t error = Journal::find(inner_, journal_);
    if (error == 0 && journal_) {
        error = journal_->readPending(pending_);
    }
    if (error != 0) {
        pending_.clear();
        return readOnly ? 0 : error;
    }
    recovered_ = pending_.size();
    if (readOnly || pending_.empty()) {
        return 0;
    }
    const PageMap pending = std::exchange(pending_, {});
    if (error = writeHome(pending, pending.size()); error != 0) {
        return error;
    }
    if (error = inner_->sync(); error != 0) {
        return error;
    }
    return journal_->makeAllBlank();
}

std::int32_t JournaledDevice::begin() noexcept {
    if (!journal_) {
        return 0;
    }
    const std::int32_t error = journal_->begin();
    isOn_ = error == 0;
    return error;
}

std::int32_t JournaledDevice::close() noexcept {
    if (!isOn_) {
        return 0;
    }
    if (!pending_.empty() || hasGoneAhead_) {
        if (const std::int32_t error = sync(); error != 0) {
            return error;
        }
    }
    if (journal_->isUsed()) {
        if (const std::int32_t error = reset(); error != 0) {
            return error;
        }
        if (const std::int32_t error = journal_->makeBlank(); error != 0) {
            return error;
        }
    }
    isOn_ = false;
    inJournal_.clear();
    return 0;
}

// ---- Reading and writing -----------------------------------------------------------------------

std::uint64_t JournaledDevice::lengthOf(std::uint64_t page) const noexcept {
    return std::min(kPage, size() - page * kPage);
}

std::int32_t JournaledDevice::read(std::byte* destination, std::uint64_t offset,
                                   std::uint64_t length) noexcept {
    if (const std::int32_t error = inner_->read(destination, offset, length); error != 0) {
        return error;
    }
    if (isOn_) {
        // The records are ours alone. The library, when it opens the volume again during the
        // session, would take them for a damaged journal of Windows's and refuse the volume.
        journal_->showBlank(destination, offset, length);
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
    const auto from = [&](const PageMap& pages) {
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
    if (journal_->overlaps(offset, length)) {
        return EIO;
    }
    if (!hasFileData_ || length <= NTB_CACHED_BYTES_MAX) {
        return buffer(source, offset, length);
    }
    const std::uint64_t end = offset + length;
    for (std::uint64_t at = offset; at < end;) {
        const std::uint64_t journaled = nextJournaled(at / kPage);
        const bool isHeld = journaled == at / kPage;
        const std::uint64_t last = isHeld ? journaled + 1 : journaled;
        const std::uint64_t next = last > end / kPage ? end : last * kPage;
        const std::byte* const from = source + (at - offset);
        hasGoneAhead_ = hasGoneAhead_ || !isHeld;
        const std::int32_t error =
            isHeld ? buffer(from, at, next - at) : inner_->write(from, at, next - at);
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
            if (const auto error = holdPart(at / kPage, source + done, at % kPage, count);
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

std::int32_t JournaledDevice::holdPart(std::uint64_t page, const std::byte* source,
                                       std::uint64_t inPage, std::uint64_t length) {
    auto held = pending_.find(page);
    if (held == pending_.end()) {
        if (pending_.size() >= journal_->capacity()) {
            if (const std::int32_t error = sync(); error != 0) {
                return error;
            }
        }
        auto content = std::make_unique<DevicePage>();
        if (length < lengthOf(page)) {
            const auto error = inner_->read(content->data(), page * kPage, lengthOf(page));
            if (error != 0) {
                return error;
            }
        }
        held = pending_.emplace(page, std::move(content)).first;
    }
    std::memcpy(held->second->data() + inPage, source, length);
    return 0;
}

void JournaledDevice::checkInvariants() const noexcept {
    TAVELIN_ASSERT(!isOn_ || journal_.has_value());
    TAVELIN_ASSERT(!isOn_ || pending_.size() <= journal_->capacity());
    TAVELIN_ASSERT(!checkpointPending_ || !pending_.empty());
    TAVELIN_ASSERT(isOn_ || inJournal_.empty());
    if constexpr (kAssertions) {
        for (const auto& [page, content] : pending_) {
            TAVELIN_ASSERT(content != nullptr && page * kPage < size());
            TAVELIN_ASSERT(!journal_->overlaps(page * kPage, kPage));
        }
        for (const auto& [page, content] : inJournal_) {
            TAVELIN_ASSERT(content == nullptr && page * kPage < size());
        }
    }
    if (isOn_) {
        journal_->checkInvariants();
    }
}

BlockDevice::Backlog JournaledDevice::backlog() const noexcept {
    return isOn_ ? Backlog{pending_.size(), journal_->capacity()} : Backlog{};
}

// ---- Carrying over -----------------------------------------------------------------------------

std::int32_t JournaledDevice::sync() noexcept {
    if (!isOn_ || pending_.empty() || hasGoneAhead_) {
        const std::int32_t error = inner_->sync();
        hasGoneAhead_ = hasGoneAhead_ && error != 0;
        if (error != 0 || !isOn_) {
            return error;
        }
    }
    while (!pending_.empty()) {
        if (const std::int32_t error = commit(); error != 0) {
            return error;
        }
    }
    return 0;
}

std::int32_t JournaledDevice::commit() noexcept {
    const std::uint64_t count = std::min<std::uint64_t>(pending_.size(), journal_->capacity());
    if (!journal_->fits(count)) {
        if (const std::int32_t error = reset(); error != 0) {
            return error;
        }
    }
    TAVELIN_ASSERT(count > 0 && journal_->fits(count));
    if (const std::int32_t error = journal_->append(pending_, count); error != 0) {
        return error;
    }
    if (const std::int32_t error = inner_->sync(); error != 0) {
        return error;
    }
    journal_->commit();
    // From here on the record decides: until all its pages are home, none may leave pending_, or a
    // failed home write would have nothing to be repeated from.
    checkpointPending_ = true;
    if (const std::int32_t error = writeHome(pending_, count); error != 0) {
        return error;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        auto node = pending_.extract(pending_.begin());
        // The page stays known: while its record is valid, a replay would put this content back
        // over anything newer that went past the journal.
        node.mapped().reset();
        inJournal_.insert(std::move(node));
    }
    checkpointPending_ = !pending_.empty();
    return 0;
}

std::int32_t JournaledDevice::writeHome(const PageMap& pages, std::uint64_t count) noexcept {
    try {
        std::vector<std::byte> run;
        auto page = pages.begin();
        for (std::uint64_t i = 0; i < count;) {
            const std::uint64_t first = page->first;
            run.clear();
            std::uint64_t length = 0;
            while (i < count && page->first == first + length && length < kRunPagesMax) {
                run.insert(run.end(), page->second->begin(),
                           page->second->begin() +
                               static_cast<std::ptrdiff_t>(lengthOf(page->first)));
                ++page;
                ++length;
                ++i;
            }
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
        PageMap accepted;
        if (const std::int32_t error = journal_->readAccepted(accepted); error != 0) {
            return error;
        }
        if (const std::int32_t error = writeHome(accepted, accepted.size()); error != 0) {
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
