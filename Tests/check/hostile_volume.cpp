#include "check/hostile_volume.hpp"

#include "NTFSBridge/ondisk/fixups.hpp"
#include "check/check.hpp"
#include "check/filled_volume.hpp"
#include "check/image_editor.hpp"
#include "lab/disk_device.hpp"

#include <algorithm>

namespace tavelin::test {
namespace {

constexpr size_t kChangeBytes = 8;
constexpr size_t kChangesMax = 12;

struct Region {
    uint64_t offset = 0;
    uint64_t size = 0;
    bool hasFixups = false;
};

// A volume, where its structures are, and what was changed in it.
class Target {
  public:
    explicit Target(const VolumeGeometry& geometry)
        : sound_(filledImage(geometry, 80)), device(sound_) {
        ImageEditor editor(sound_);
        const uint64_t cluster = editor.boot().cluster_size;
        regions_.push_back({0, 512, false});
        for (uint64_t number = 0; number < editor.recordCount(); ++number) {
            if (ntb::record_view(editor.rawRecord(number)).in_use()) {
                regions_.push_back(
                    {editor.offsetOfRecord(number), editor.boot().record_size, true});
            }
        }
        for (uint64_t block = 0; block < 4; ++block) {
            regions_.push_back({editor.offsetOfIndexBlock(editor.record("/dir"), block),
                                editor.boot().index_block_size, true});
        }
        const auto addClusters = [&](uint64_t number, uint32_t type, std::string_view name) {
            for (const ntb::run& run : editor.runs(number, type, name)) {
                regions_.push_back(
                    {run.lcn * cluster, std::min<uint64_t>(run.length * cluster, 4096), false});
            }
        };
        addClusters(ntb::record_bitmap, ntb::at_data, "");
        addClusters(ntb::record_secure, ntb::at_data, "$SDS");
        addClusters(ntb::record_logfile, ntb::at_data, "");
        addClusters(editor.record("/many"), ntb::at_attribute_list, "");
    }

    void apply(std::span<const uint8_t, kChangeBytes> change) {
        const Region& region = regions_[(change[1] | change[2] << 8) % regions_.size()];
        const std::span<uint8_t> bytes(device.bytes.data() + region.offset, region.size);
        changed_.push_back(&region);
        const unsigned width = 1u << (change[0] & 3);
        const size_t at = (change[3] | change[4] << 8) % (region.size - width + 1);
        const bool keepsFixups = region.hasFixups && (change[0] & 0x40) == 0 &&
                                 ntb::apply_fixups(bytes) == ntb::fixup_result::good;
        uint64_t value = change[5] | static_cast<uint64_t>(change[6]) << 8 |
                         static_cast<uint64_t>(change[7]) << 16;
        if ((change[0] & 0x80) != 0) {
            value = ~value;
        }
        ntb::put_at(bytes.data(), at, width, value);
        if (keepsFixups) {
            ntb::insert_fixups(bytes);
        }
    }
    void restore() {
        for (const Region* region : changed_) {
            std::copy_n(sound_.begin() + static_cast<std::ptrdiff_t>(region->offset), region->size,
                        device.bytes.begin() + static_cast<std::ptrdiff_t>(region->offset));
        }
        changed_.clear();
    }

  private:
    std::vector<uint8_t> sound_;
    std::vector<Region> regions_;
    std::vector<const Region*> changed_;

  public:
    MemoryDevice device; // the sound volume with the changes
};

Target& targetOf(uint8_t choice) {
    static Target small({4u << 20, 512, 512});
    static Target usual({4u << 20, 4096, 512});
    return choice % 2 == 0 ? small : usual;
}

// The target of an input with what the input changes in it.
Target& damaged(std::span<const uint8_t> input) {
    Target& target = targetOf(input.empty() ? 0 : input[0]);
    std::span<const uint8_t> rest = input.subspan(std::min<size_t>(1, input.size()));
    for (size_t i = 0; i < kChangesMax && rest.size() >= kChangeBytes; ++i) {
        target.apply(rest.first<kChangeBytes>());
        rest = rest.subspan(kChangeBytes);
    }
    return target;
}

} // namespace

check::Report checkHostile(std::span<const uint8_t> input) {
    check::Options options;
    options.deep = !input.empty() && (input[0] & 2) != 0;
    options.onFinding = [](const check::Finding& finding) {
        static_cast<void>(check::oneLine(finding));
    };
    Target& target = damaged(input);
    check::Report report = check::checkVolume(target.device, options);
    target.restore();
    return report;
}

std::vector<uint8_t> hostileImage(std::span<const uint8_t> input) {
    Target& target = damaged(input);
    std::vector<uint8_t> image = target.device.bytes;
    target.restore();
    return image;
}

} // namespace tavelin::test
