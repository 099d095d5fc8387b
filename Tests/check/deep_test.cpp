// What reading all data finds in files that Windows compressed as a whole.
#include "check/check.hpp"
#include "check/image_editor.hpp"
#include "lab/disk_device.hpp"
#include "support/reparse_items.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

std::string deepFindings(MemoryDevice& device) {
    std::string text;
    check::Options options;
    options.deep = true;
    options.onFinding = [&](const check::Finding& finding) {
        text += check::oneLine(finding) + "\n";
    };
    return check::checkVolume(device, options).unreadable + text;
}

TEST(DeepCheck, DecompressesWhatWindowsCompressed) {
    REQUIRE_DRIVER();
    const SampleVolume sample({.bytes = 32u << 20});
    std::vector<std::string> names;
    {
        const DriverMount driver(sample, kReparseItemOptions);
        for (const ReparseItem& item : reparseItems()) {
            if (item.kind == ReparseItem::Kind::compressed) {
                makeReparseItem(driver, item.name, item);
                names.push_back("/" + item.name);
            }
        }
    }
    ASSERT_FALSE(names.empty());
    const std::string raw = readFile(sample.image());
    MemoryDevice device({raw.begin(), raw.end()});
    EXPECT_EQ(deepFindings(device), "");

    for (const std::string& name : names) {
        MemoryDevice damaged(device.bytes);
        ImageEditor editor(damaged.bytes);
        const auto runs = editor.runs(editor.record(name), ntb::at_data, "WofCompressedData");
        ASSERT_FALSE(runs.empty()) << name;
        const uint64_t at = runs[0].lcn * editor.boot().cluster_size;
        // The last bytes of the first cluster are inside a chunk, behind the table of offsets.
        std::fill_n(damaged.bytes.begin() + static_cast<std::ptrdiff_t>(at), 4096, uint8_t{0xff});
        const std::string found = deepFindings(damaged);
        EXPECT_NE(found.find("compressed-data"), std::string::npos) << name << ": " << found;
        EXPECT_NE(found.find(name), std::string::npos) << found;

        damaged.bytes = device.bytes;
        damaged.lost = {at / MemoryDevice::kSector};
        EXPECT_NE(deepFindings(damaged).find("data-unreadable"), std::string::npos) << name;
    }
}

} // namespace
} // namespace tavelin::test
