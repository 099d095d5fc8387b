// Reads the content of every file once.
#include "check/private/lznt1.hpp"
#include "check/private/passes.hpp"
#include "check/private/system_compression.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kDeepReadBytes = 1u << 20;
constexpr std::uint64_t kUnitBytesMax = 1u << 20; // of a compression unit
constexpr std::uint16_t kLznt1 = 1;

class ContentReader {
  public:
    ContentReader(Volume& volume, const File& file, const Attribute& attribute)
        : volume_(volume), file_(file), attribute_(attribute) {}

    void run() {
        const ntb::attribute_view& first = attribute_.first;
        const std::uint64_t unit = volume_.boot.cluster_size << (first.compression_unit() & 0x1f);
        // A unit of another size, or of a method that no Windows writes, is only read.
        const bool isDecoded = (first.flags() & ntb::attribute_compression_mask) == kLznt1 &&
                               first.compression_unit() < 8 && unit <= kUnitBytesMax;
        if (isDecoded) {
            readUnits(std::uint64_t{1} << first.compression_unit());
        } else {
            readRuns();
        }
    }

  private:
    void add(FindingClass kind, const std::string& expected, const std::string& found) {
        if (!std::exchange(isReported_, true)) { // the first one of a stream says it all
            const std::string stream = toText(attribute_.first.name());
            volume_.add(kind, file_.number, expected,
                        stream.empty() ? found : fmt::format("stream {}: {}", stream, found));
        }
    }

    void readRuns() {
        const std::uint64_t cluster = volume_.boot.cluster_size;
        for (const ntb::run& run : attribute_.runs) {
            const std::uint64_t bytes = run.is_hole ? 0 : run.length * cluster;
            for (std::uint64_t at = 0; at < bytes && !volume_.isExhausted(); at += kDeepReadBytes) {
                buffer_.resize(std::min(kDeepReadBytes, bytes - at));
                readClusters(run.lcn * cluster + at, run.vcn * cluster + at, buffer_);
            }
        }
    }

    bool readClusters(std::uint64_t offset, std::uint64_t inFile, std::span<std::uint8_t> into) {
        if (!volume_.spend(into.size())) {
            return false;
        }
        volume_.advance(into.size());
        if (volume_.device.read(offset, into) == 0) {
            return true;
        }
        // Says where, to the cluster.
        const std::uint64_t cluster = volume_.boot.cluster_size;
        for (std::uint64_t at = 0; at < into.size(); at += cluster) {
            const auto part = into.subspan(at, std::min(cluster, into.size() - at));
            if (volume_.device.read(offset + at, part) != 0) {
                add(dataUnreadable, "data",
                    fmt::format("a read error from byte {} on, at byte {} "
                                "of the device",
                                inFile + at, offset + at));
                break;
            }
        }
        return false;
    }

    /// The clusters of a unit that are not a hole are at its beginning: none for zeros, all for
    /// data that is stored as it is.
    void readUnits(std::uint64_t unitClusters) {
        const std::uint64_t cluster = volume_.boot.cluster_size;
        auto run = attribute_.runs.begin();
        for (std::uint64_t vcn = 0; run != attribute_.runs.end() && !volume_.isExhausted();
             vcn += unitClusters) {
            if (run->vcn >= vcn + unitClusters) { // a gap, or what is far away on a hostile volume
                vcn = run->vcn / unitClusters * unitClusters;
            }
            std::uint64_t used = 0;
            bool isRead = true;
            buffer_.resize(unitClusters * cluster);
            for (; run != attribute_.runs.end() && run->vcn < vcn + unitClusters; ++run) {
                const std::uint64_t begin = std::max(run->vcn, vcn);
                const std::uint64_t end = std::min(run->vcn + run->length, vcn + unitClusters);
                if (!run->is_hole && begin < end) {
                    isRead =
                        readClusters(
                            (run->lcn + (begin - run->vcn)) * cluster, begin * cluster,
                            std::span(buffer_).subspan(used * cluster, (end - begin) * cluster)) &&
                        isRead;
                    used += end - begin;
                    TAVELIN_ASSERT(used <= unitClusters); // runs are disjoint and in VCN order
                }
                if (run->vcn + run->length > vcn + unitClusters) {
                    break; // goes on in the next unit
                }
            }
            // A unit in all its clusters is stored as it is: compressing it saved none.
            if (isRead && used > 0 && used < unitClusters &&
                !decodesAsLznt1(std::span(buffer_).first(used * cluster), buffer_.size())) {
                add(compressedData, "data that decompresses",
                    fmt::format("data that does not, from byte {} on", vcn * cluster));
            }
            skipHole(run, vcn, unitClusters); // last, as it moves on to another unit
        }
    }

    /// A hole of many units is passed in one step.
    void skipHole(std::vector<ntb::run>::const_iterator& run, std::uint64_t& vcn,
                  std::uint64_t unitClusters) {
        if (run != attribute_.runs.end() && run->is_hole && run->vcn + run->length > vcn) {
            const std::uint64_t end = run->vcn + run->length;
            const std::uint64_t last = end / unitClusters * unitClusters;
            if (last > vcn + unitClusters) {
                vcn = last - unitClusters;
            }
            if (end == last) {
                ++run;
            }
        }
    }

    Volume& volume_;
    const File& file_;
    const Attribute& attribute_;
    std::vector<std::uint8_t> buffer_;
    bool isReported_ = false;
};

} // namespace

void readAllData(Volume& volume) {
    volume.beginPhase("content of files");
    volume.expect(volume.clusters.used() * volume.boot.cluster_size);
    volume.table.each(volume.recordCount(), [&](std::uint64_t number, const RecordState& state) {
        File file;
        if (number == ntb::record_badclus || state.has(RecordState::extension) ||
            !volume.loadFile(number, file) || readSystemCompressed(volume, file)) {
            return;
        }
        for (const Attribute& attribute : file.attributes) {
            if (!attribute.isResident() && attribute.type() == ntb::at_data) {
                ContentReader(volume, file, attribute).run();
            }
        }
    });
}

} // namespace tavelin::check
