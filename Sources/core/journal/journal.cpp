#include "core/journal/journal.hpp"

#include "core/device_box.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <random>
#include <utility>

namespace tavelin {

namespace {

constexpr std::uint64_t kRecordWriteBytesMax = 256 * LogFile::kPage; ///< longest write of a record

std::uint64_t randomNumber() {
    std::random_device source;
    return std::uint64_t{source()} << 32 | source();
}

} // namespace

Journal::Journal(std::shared_ptr<BlockDevice> device, LogFile log, std::uint64_t serial)
    : device_(std::move(device)),
      log_(std::move(log)),
      serial_(serial),
      end_(std::min(log_.size(), kBegin + kMost)),
      capacity_((end_ - kBegin) / kPage) {
    while (JournalRecord::length(capacity_) * kPage > end_ - kBegin) {
        --capacity_;
    }
}

std::int32_t Journal::find(const std::shared_ptr<BlockDevice>& device,
                           std::optional<Journal>& found) noexcept {
    std::optional<LogFile> log;
    if (const std::int32_t error = LogFile::find(device, log); error != 0) {
        return error;
    }
    if (!log || log->size() < kBegin + kLeast) {
        return 0;
    }
    try {
        DeviceBox box(device);
        const ntb_io io = makeIO(box);
        std::uint64_t serial = 0;
        if (ntb_probe(&io, &serial) != 0) {
            return EIO; // it was an NTFS volume a moment ago
        }
        found = Journal(device, *std::move(log), serial);
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t Journal::readRecord(std::uint64_t& position, JournalRecord& last, PageMap& pages,
                                 bool& counts) const {
    counts = false;
    std::vector<std::byte> whole(kPage);
    if (const std::int32_t error = log_.read(whole.data(), position, kPage); error != 0) {
        return error;
    }
    const auto record = JournalRecord::parse(whole.data());
    const bool isNext = last.pages == 0 || (record && record->session == last.session &&
                                            record->sequence == last.sequence + 1);
    if (!record || !isNext || record->serial != serial_ || record->pages == 0 ||
        record->pages > capacity_ ||
        position + JournalRecord::length(record->pages) * kPage > end_) {
        return 0;
    }
    whole.resize(JournalRecord::length(record->pages) * kPage);
    if (const std::int32_t error =
            log_.read(whole.data() + kPage, position + kPage, whole.size() - kPage);
        error != 0) {
        return error;
    }
    if (!record->decode(whole, (device_->size() + kPage - 1) / kPage)) {
        return 0;
    }
    const std::byte* content = whole.data() + JournalRecord::headerPages(record->pages) * kPage;
    for (std::uint32_t i = 0; i < record->pages; ++i, content += kPage) {
        auto& page = pages[JournalRecord::pageNumber(whole.data(), i)];
        page = std::make_unique_for_overwrite<DevicePage>();
        std::memcpy(page->data(), content, kPage);
    }
    last = *record;
    position += whole.size();
    counts = true;
    return 0;
}

std::int32_t Journal::readRecords(std::uint64_t end, PageMap& pages) const noexcept {
    try {
        bool counts = false;
        if (const std::int32_t error = log_.isBlank(0, kBegin, counts); error != 0) {
            return error;
        }
        JournalRecord last;
        for (std::uint64_t position = kBegin; counts && position < end;) {
            if (const std::int32_t error = readRecord(position, last, pages, counts); error != 0) {
                return error;
            }
        }
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

std::int32_t Journal::begin() noexcept {
    try {
        session_ = randomNumber();
    } catch (const std::exception&) {
        return EIO; // no random numbers to be had
    }
    position_ = kBegin;
    bool isBlank = false;
    if (const auto error = log_.isBlank(0, kBegin + kPage, isBlank); error != 0 || isBlank) {
        return error;
    }
    return makeAllBlank();
}

std::int32_t Journal::append(const PageMap& content, std::uint64_t pages) noexcept {
    try {
        const JournalRecord record{.pages = static_cast<std::uint32_t>(pages),
                                   .serial = serial_,
                                   .session = session_,
                                   .sequence = sequence_};
        TAVELIN_ASSERT(pages > 0 && pages <= capacity_ && pages <= content.size() && fits(pages));
        std::vector<std::byte> stretch = record.encode(content);
        std::uint64_t done = 0;
        auto page = content.begin();
        for (std::uint64_t i = 0; i < pages; ++i, ++page) {
            if (stretch.size() >= kRecordWriteBytesMax) {
                if (const auto error = log_.write(stretch.data(), position_ + done, stretch.size());
                    error != 0) {
                    return error;
                }
                done += stretch.size();
                stretch.clear();
            }
            stretch.insert(stretch.end(), page->second->begin(), page->second->end());
            record.escape(stretch.data() + stretch.size() - kPage);
        }
        appended_ = done + stretch.size();
        TAVELIN_ASSERT(appended_ == JournalRecord::length(pages) * kPage);
        used_ = std::max(used_, position_ + appended_);
        return log_.write(stretch.data(), position_ + done, stretch.size());
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void Journal::commit() noexcept {
    TAVELIN_ASSERT(appended_ != 0 && !isStartingOver_);
    position_ += std::exchange(appended_, 0);
    ++sequence_;
}

void Journal::checkInvariants() const noexcept {
    TAVELIN_ASSERT(position_ >= kBegin && position_ <= end_ && position_ % kPage == 0);
    TAVELIN_ASSERT(position_ + appended_ <= end_);
    TAVELIN_ASSERT(used_ >= kBegin && used_ <= end_);
    TAVELIN_ASSERT(position_ == kBegin || used_ >= position_);
    TAVELIN_ASSERT(sequence_ >= 1);
    TAVELIN_ASSERT(JournalRecord::length(capacity_) * kPage <= end_ - kBegin);
}

std::int32_t Journal::reset() noexcept {
    isStartingOver_ = true;
    if (const auto error = log_.makeBlank(kBegin, kBegin + kPage); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    isStartingOver_ = false;
    position_ = kBegin;
    return 0;
}

std::int32_t Journal::makeBlank() noexcept {
    const std::int32_t error = log_.makeBlank(kBegin + kPage, std::max(used_, kBegin + kPage));
    used_ = error == 0 ? kBegin : used_;
    return error;
}

// The first 64 KiB last: what they hold decides whether anything behind them counts.
std::int32_t Journal::makeAllBlank() noexcept {
    if (const auto error = reset(); error != 0) {
        return error;
    }
    if (const auto error = log_.makeBlank(kBegin + kPage, log_.size()); error != 0) {
        return error;
    }
    if (const auto error = device_->sync(); error != 0) {
        return error;
    }
    if (const auto error = log_.makeBlank(0, kBegin); error != 0) {
        return error;
    }
    return device_->sync();
}

} // namespace tavelin
