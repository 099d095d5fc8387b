// Power cuts while a system-compressed file is changed, and so written out before: it is whole in
// one form or the other, whenever the power goes.
#include "crash/power_cut.hpp"
#include "hosting/paths.hpp"
#include "support/reparse_items.hpp"

#include <gtest/gtest.h>

namespace tavelin::test {
namespace {

using ItemKind = ReparseItem::Kind;

Bytes volumeWithCompressedFiles() {
    const SampleVolume sample({.bytes = 6u << 20});
    {
        const DriverMount driver(sample, kReparseItemOptions);
        for (const ReparseItem& item : reparseItems()) {
            if (item.kind == ItemKind::compressed) {
                makeReparseItem(driver, item.name, item);
            }
        }
        driver.make("bystander", "untouched");
    }
    const std::string raw = readFile(sample.image());
    Bytes image(raw.size());
    std::memcpy(image.data(), raw.data(), raw.size());
    return image;
}

TEST(DecompressionCut, LeavesOneFormWhole) {
    REQUIRE_DRIVER();
    const Bytes base = volumeWithCompressedFiles();
    CrashReport report;
    for (const ReparseItem& item : reparseItems()) {
        if (item.kind != ItemKind::compressed) {
            continue;
        }
        const auto at = [name = item.name](VolumeClient& volume) {
            return resolve(volume, name).get().item;
        };
        const Operation operations[] = {
            {"write",
             [&](VolumeClient& volume) {
                 volume.write(at(volume), 1000, Bytes(5000, std::byte{'w'})).get();
             },
             {item.name},
             {}},
            {"append much",
             [&](VolumeClient& volume) {
                 volume.write(at(volume), item.content.size(), Bytes(200'000, std::byte{'a'}))
                     .get();
             },
             {item.name},
             {}},
            {"truncate",
             [&](VolumeClient& volume) {
                 fskit::FSItemSetAttributesRequest request;
                 request.setSize(10);
                 volume.setAttributes(at(volume), request).get();
             },
             {item.name},
             {}},
        };
        for (const Operation& operation : operations) {
            report.add(tryScript(base, {{&operation}, Finish::synchronise}, {}));
        }
    }
    for (const Fault fault : kAllFaults) {
        EXPECT_EQ(report.count(fault), 0u) << faultName(fault) << "\n"
                                           << (report.examples.empty() ? "" : report.examples[0]);
    }
    EXPECT_GT(report.cutPoints, 50u);
}

} // namespace
} // namespace tavelin::test
