// The bitmaps of clusters and of file records, against what is in use.
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::size_t kRangesMax = 1u << 16;
constexpr std::uint64_t kBitmapSlack = 1u << 20; // bytes that a bitmap may be too long

class ClusterBitmap {
  public:
    explicit ClusterBitmap(Volume& volume) : volume_(volume) {}

    void run() {
        File file;
        const Attribute* const data =
            volume_.loadFile(ntb::record_bitmap, file) ? file.find(ntb::at_data) : nullptr;
        const std::uint64_t clusters = volume_.boot.clusters();
        const std::uint64_t needed = (clusters + 7) / 8;
        // A longer bitmap is usual, since its file fills whole clusters. One that is far too long
        // is a finding: other readers scan it to its end.
        if (data == nullptr || data->size() < needed || data->size() > 2 * needed + kBitmapSlack) {
            volume_.add(bitmapSize, ntb::record_bitmap, fmt::format("{} bytes", needed),
                        data == nullptr ? "no $DATA" : std::to_string(data->size()));
            if (data == nullptr) {
                return;
            }
        }
        volume_.expect(needed);
        // Words are compared whole, so the last ones are read up to a multiple of 8 bytes. What the
        // bitmap does not have reads as zeros.
        static_assert(ClusterMap::kChunkClusters % 64 == 0);
        std::vector<std::uint8_t> bytes(
            std::min(ClusterMap::kChunkClusters / 8, (needed + 7) / 8 * 8));
        for (std::uint64_t first = 0; first < std::min(clusters, data->size() * 8);
             first += ClusterMap::kChunkClusters) {
            if (volume_.read(*data, first / 8, bytes) != 0) {
                volume_.add(recordUnreadable, ntb::record_bitmap, "$Bitmap", "a read error");
                break;
            }
            const std::uint64_t count = std::min(ClusterMap::kChunkClusters, clusters - first);
            compare(first, count, bytes);
            checkTail(first, count, data->size() * 8, bytes);
            volume_.advance(count / 8);
        }
        flush();
    }

  private:
    void compare(std::uint64_t first, std::uint64_t count, std::span<const std::uint8_t> bytes) {
        TAVELIN_ASSERT(first % ClusterMap::kChunkClusters == 0);
        TAVELIN_ASSERT(count > 0 && (count + 63) / 64 * 8 <= bytes.size());
        const std::uint64_t* const used =
            volume_.clusters.chunk(first / ClusterMap::kChunkClusters);
        for (std::uint64_t word = 0; word * 64 < count; ++word) {
            const std::uint64_t marked = ntb::u64_at(bytes.data(), word * 8);
            std::uint64_t differing = marked ^ (used == nullptr ? 0 : used[word]);
            // Bits behind the last cluster are checkTail()'s.
            if (count - word * 64 < 64) {
                differing &= (std::uint64_t{1} << (count - word * 64)) - 1;
            }
            for (; differing != 0; differing &= differing - 1) { // the lowest bit goes
                const auto bit = static_cast<std::uint64_t>(std::countr_zero(differing));
                note(first + word * 64 + bit, (marked >> bit & 1) != 0);
            }
        }
    }

    /// Clusters come in ascending order, so that neighbours become one range and one finding.
    void note(std::uint64_t cluster, bool isMarked) {
        TAVELIN_ASSERT(range_.count == 0 || range_.first + range_.count <= cluster);
        if (range_.count > 0 && isMarked == isMarkedRange_ &&
            range_.first + range_.count == cluster) {
            ++range_.count;
            return;
        }
        flush();
        range_ = {cluster, 1};
        isMarkedRange_ = isMarked;
    }

    void flush() {
        if (range_.count > 0 && isMarkedRange_) {
            volume_.add(
                clusterMarkedUsed, std::nullopt, "marked free",
                fmt::format("{} clusters from {} are marked used", range_.count, range_.first));
        } else if (range_.count > 0 && volume_.markedFree.size() < kRangesMax) {
            volume_.markedFree.push_back(range_); // resolveClusters() tells whose they are
        } else if (range_.count > 0) {
            volume_.reporter.count(clusterMarkedFree);
        }
        range_ = {};
    }

    /// Bits behind the last cluster are set, so that nobody takes them.
    void checkTail(std::uint64_t first, std::uint64_t count, std::uint64_t bits,
                   std::span<const std::uint8_t> bytes) {
        TAVELIN_ASSERT(first < bits);
        const std::uint64_t end = std::min(bits - first, (count + 63) / 64 * 64);
        for (std::uint64_t bit = count; bit < end; ++bit) {
            if ((bytes[bit / 8] >> bit % 8 & 1) == 0) {
                volume_.add(bitmapTail, ntb::record_bitmap, "marked used",
                            fmt::format("cluster {} is marked free", first + bit));
                return;
            }
        }
    }

    Volume& volume_;
    ClusterRange range_; ///< where bitmap and clusters differ in the same way
    bool isMarkedRange_ = false;
};

} // namespace

void checkBitmaps(Volume& volume) {
    volume.beginPhase("bitmaps");
    ClusterBitmap(volume).run();

    const Attribute* const bitmap = volume.mft().find(ntb::at_bitmap);
    const std::uint64_t count = volume.recordCount();
    const auto bytes = bitmap == nullptr ? std::nullopt : volume.readAll(*bitmap, count / 8 + 1);
    if (!bytes || bytes->size() < (count + 7) / 8) {
        volume.add(bitmapSize, ntb::record_mft, fmt::format("{} bytes", (count + 7) / 8),
                   bytes ? std::to_string(bytes->size()) : "no $BITMAP");
    }
    for (std::uint64_t number = 0; bytes && number < std::min(count, bytes->size() * 8); ++number) {
        const bool isMarked = ((*bytes)[number / 8] >> number % 8 & 1) != 0;
        const bool isUsed = volume.table.find(number) != nullptr;
        if (isUsed && !isMarked) {
            volume.add(recordMarkedFree, number, "marked used", "marked free");
        } else if (!isUsed && isMarked && number >= ntb::first_user_record) {
            // Formatting programs mark the reserved records used and leave them free.
            volume.add(recordMarkedUsed, number, "marked free", "marked used", "");
        }
    }
}

// ---- Whose clusters ----------------------------------------------------------------------------

namespace {

void sortAndMerge(std::vector<ClusterRange>& ranges) {
    std::ranges::sort(ranges, {}, &ClusterRange::first);
    std::vector<ClusterRange> merged;
    for (const ClusterRange& range : ranges) {
        TAVELIN_ASSERT(range.count > 0);
        if (!merged.empty() && range.first <= merged.back().first + merged.back().count) {
            merged.back().count =
                std::max(merged.back().first + merged.back().count, range.first + range.count) -
                merged.back().first;
        } else {
            merged.push_back(range);
        }
    }
    ranges = std::move(merged);
}

/// The first range that has a cluster of the file's; null when there is none.
const ClusterRange* firstOf(const File& file, const std::vector<ClusterRange>& ranges) {
    for (const Attribute& attribute : file.attributes) {
        for (const ntb::run& run : attribute.runs) {
            // The ranges are disjoint and ascending, so their ends ascend too: the first that ends
            // behind the run's begin is the only candidate to look at.
            const auto found = std::ranges::upper_bound(
                ranges, run.lcn, {}, [](const ClusterRange& r) { return r.first + r.count; });
            if (!run.is_hole && found != ranges.end() && found->first < run.lcn + run.length) {
                return &*found;
            }
        }
    }
    return nullptr;
}

void report(Volume& volume, FindingClass kind, const File& file,
            const std::vector<ClusterRange>& ranges, const std::string& expected,
            std::string_view state) {
    if (const ClusterRange* const range = firstOf(file, ranges)) {
        volume.add(kind, file.number, expected,
                   fmt::format("{} clusters from {} {}", range->count, range->first, state));
    }
}

} // namespace

void resolveClusters(Volume& volume) {
    // A second walk over all files, made only where there is something to resolve: to remember each
    // cluster's owner in the first would cost memory on every sound volume.
    sortAndMerge(volume.conflicts);
    sortAndMerge(volume.markedFree);
    if (volume.conflicts.empty() && volume.markedFree.empty()) {
        return;
    }
    volume.beginPhase("owners of clusters");
    volume.table.each(volume.recordCount(), [&](std::uint64_t number, const RecordState& state) {
        File file;
        if (!state.has(RecordState::extension) && volume.loadFile(number, file)) {
            report(volume, clusterUsedTwice, file, volume.conflicts, "clusters of its own",
                   "are used twice");
            report(volume, clusterMarkedFree, file, volume.markedFree, "marked used",
                   "are marked free");
        }
    });
}

} // namespace tavelin::check
