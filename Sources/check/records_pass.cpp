// Reads $MFT from its first record to its last.
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kReadBytes = 1u << 20;

class RecordsPass {
  public:
    explicit RecordsPass(Volume& volume) : volume_(volume), size_(volume.boot.record_size) {}

    void run() {
        if (const Attribute* const bitmap = volume_.mft().find(ntb::at_bitmap)) {
            bitmap_ = volume_.readAll(*bitmap, volume_.recordCount() / 8 + 1)
                          .value_or(std::vector<std::uint8_t>{});
        }
        volume_.beginPhase("file records");
        volume_.expect(volume_.recordCount() * size_);
        static_assert(kReadBytes % ntb::record_size_max == 0);
        std::vector<std::uint8_t> chunk(std::min(kReadBytes, volume_.recordCount() * size_));
        for (std::uint64_t first = 0; first < volume_.recordCount();) {
            const std::uint64_t count = std::min(kReadBytes / size_, volume_.recordCount() - first);
            const std::span<std::uint8_t> records(chunk.data(), count * size_);
            TAVELIN_ASSERT(count > 0 && records.size() <= chunk.size());
            // Many at a time. Where that fails, one by one: a bad sector costs one record, not the
            // thousand around it.
            const bool isRead = volume_.readRawRecords(first, records) == 0;
            for (std::uint64_t i = 0; i < count; ++i) {
                const std::span<std::uint8_t> record = records.subspan(i * size_, size_);
                if (isRead || volume_.readRawRecords(first + i, record) == 0) {
                    check(first + i, record);
                } else if (isMarkedUsed(first + i)) {
                    volume_.add(recordUnreadable, first + i, "a file record", "a read error", "");
                }
            }
            first += count;
            volume_.advance(count * size_);
        }
        // An extension's base record may come behind it: what nobody claimed is known only now.
        findOrphans();
    }

  private:
    [[nodiscard]] bool isMarkedUsed(std::uint64_t number) const {
        return number / 8 < bitmap_.size() && (bitmap_[number / 8] >> number % 8 & 1) != 0;
    }

    void check(std::uint64_t number, std::span<std::uint8_t> bytes) {
        TAVELIN_ASSERT(bytes.size() == size_ && number < volume_.recordCount());
        const ntb::record_view record(bytes);
        // Records that were never used may hold anything. Only the bitmap says that one should be
        // there.
        if (!record.has_magic()) {
            if (isMarkedUsed(number) && number >= ntb::first_user_record) {
                volume_.add(recordMagic, number, "a file record, as it is marked used",
                            std::memcmp(bytes.data(), "BAAD", 4) == 0
                                ? "one that the last check found torn"
                                : fmt::format("bytes {:02x} {:02x} {:02x} {:02x}", bytes[0],
                                              bytes[1], bytes[2], bytes[3]),
                            "");
            }
            return;
        }
        if (!record.in_use()) {
            return;
        }
        // A free record keeps its former file's attributes, which are not examined: they say
        // nothing about the volume any more. The flag lies before the first protected word.
        const ntb::fixup_result fixups = ntb::apply_fixups(bytes);
        if (fixups == ntb::fixup_result::mismatch) {
            volume_.add(recordTorn, number, "sectors of one write", "sectors of two");
        }
        RecordState& state = volume_.table.add(number);
        ++volume_.report.records;
        state.sequence = record.sequence();
        if (fixups == ntb::fixup_result::malformed) {
            state.set(RecordState::damaged);
            volume_.add(recordHeader, number, "an update sequence", "none", "");
            return;
        }
        checkHeader(number, record);
        // The attributes of an extension are examined with its base record, as parts of one file.
        if (record.base() != 0) {
            state.set(RecordState::extension);
            state.parent = static_cast<std::uint32_t>(ntb::reference_record(record.base()));
            return;
        }
        File file;
        volume_.assemble(number, bytes, file);
        if (!file.isWhole) {
            state.set(RecordState::damaged);
        }
        checkFile(volume_, file, state);
        checkAllocation(volume_, file);
    }

    void checkHeader(std::uint64_t number, const ntb::record_view& record) {
        // Attributes are aligned to 8 bytes and follow the update sequence, which has one word more
        // than the record has protected ones.
        const std::uint64_t begin = record.attributes_offset();
        const std::uint64_t usaEnd = record.usa_offset() + (size_ / ntb::protected_bytes + 1) * 2;
        if (begin % 8 != 0 || begin < usaEnd || begin >= record.used() ||
            record.used() > record.allocated() || record.allocated() != size_) {
            volume_.add(recordHeader, number, fmt::format("attributes inside {} bytes", size_),
                        fmt::format("attributes at {}, {} of {} bytes used", begin, record.used(),
                                    record.allocated()));
        }
        if (record.has_number() && record.number() != static_cast<std::uint32_t>(number)) {
            volume_.add(recordNumber, number, std::to_string(number),
                        std::to_string(record.number()));
        }
        if (record.sequence() == 0) {
            volume_.add(recordSequence, number, "a number from 1 on", "0");
        }
    }

    void findOrphans() {
        volume_.table.each(volume_.recordCount(), [&](std::uint64_t number, RecordState& state) {
            if (state.has(RecordState::extension) && !state.has(RecordState::claimed)) {
                volume_.add(extensionOrphan, number,
                            fmt::format("a place in the attribute list of record {}", state.parent),
                            "none");
            }
        });
    }

    Volume& volume_;
    const std::uint64_t size_;
    std::vector<std::uint8_t> bitmap_;
};

} // namespace

void checkRecords(Volume& volume) {
    RecordsPass(volume).run();
}

} // namespace tavelin::check
