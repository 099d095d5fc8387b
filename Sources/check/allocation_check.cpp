// The clusters of a file's attributes, and the sizes that are said of them.
#include "check/private/passes.hpp"

#include <fmt/format.h>

namespace tavelin::check {
namespace {

using enum FindingClass;

/// $Bad has the volume's bad clusters and, without being called sparse, holes between them.
bool isBadClusterList(const File& file, const Attribute& attribute) {
    return file.number == ntb::record_badclus && isNamed(attribute.first.name(), "$Bad");
}

void checkSizes(Volume& volume, const File& file, const Attribute& attribute,
                std::uint64_t holeClusters) {
    TAVELIN_ASSERT(!attribute.isResident());
    const ntb::attribute_view& first = attribute.first;
    const std::uint64_t cluster = volume.boot.cluster_size;
    const std::string what = fmt::format("attribute {:#x}", first.type());
    if (first.initialized_size() > first.data_size() ||
        first.data_size() > first.allocated_size()) {
        volume.add(attributeSizes, file.number, "initialised <= data <= allocated bytes",
                   fmt::format("{}: {}, {}, {}", what, first.initialized_size(), first.data_size(),
                               first.allocated_size()));
    }
    if (!attribute.isWhole) {
        return; // reported: the clusters are not known
    }
    if (first.allocated_size() != attribute.clusters * cluster) {
        volume.add(allocatedSize, file.number,
                   fmt::format("{} bytes", attribute.clusters * cluster),
                   fmt::format("{}: {}", what, first.allocated_size()));
    }
    // Windows shows this number as the size on disk of compressed and sparse files, and takes it
    // off the quota. Holes do not count.
    const std::uint64_t inClusters = (attribute.clusters - holeClusters) * cluster;
    if (first.has_total_allocated() && first.total_allocated() != inClusters) {
        volume.add(compressedSize, file.number, fmt::format("{} bytes", inClusters),
                   fmt::format("{}: {}", what, first.total_allocated()));
    }
}

} // namespace

void checkAllocation(Volume& volume, const File& file) {
    for (const Attribute& attribute : file.attributes) {
        if (attribute.isResident()) {
            continue;
        }
        // Marked whatever else is wrong with the attribute: a cluster that any run list names must
        // not be given to another file.
        std::uint64_t holeClusters = 0;
        for (const ntb::run& run : attribute.runs) {
            if (run.is_hole) {
                holeClusters += run.length;
            } else {
                volume.clusters.mark(run.lcn, run.length, volume.conflicts);
            }
        }
        const bool mayHaveHoles = attribute.first.is_sparse() || attribute.first.is_compressed() ||
                                  isBadClusterList(file, attribute);
        if (holeClusters > 0 && !mayHaveHoles) {
            volume.add(runHole, file.number, "clusters for all data",
                       fmt::format("attribute {:#x}: none for {}", attribute.type(), holeClusters));
        }
        checkSizes(volume, file, attribute, holeClusters);
    }
}

} // namespace tavelin::check
