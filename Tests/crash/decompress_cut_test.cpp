// Power cuts while a system-compressed file is changed, and so written out before: it is whole in
// one form or the other, whenever the power goes.
#include "lab/power_cut.hpp"
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
    return loadImage(sample.image());
}

TEST(DecompressionCut, LeavesOneFormWhole) {
    REQUIRE_DRIVER();
    const Bytes base = volumeWithCompressedFiles();
    CrashReport report;
    for (const ReparseItem& item : reparseItems()) {
        if (item.kind != ItemKind::compressed) {
            continue;
        }
        const auto size = static_cast<std::int64_t>(item.content.size());
        const Workload changes[] = {
            {"write", Operations{{Verb::write, item.name, "", 1000, 5000}}},
            {"append much", Operations{{Verb::write, item.name, "", size, 200'000}}},
            {"truncate", Operations{{Verb::truncate, item.name, "", 10}}},
        };
        for (const Workload& change : changes) {
            report.add(tryScript(base, {{&change}, Finish::synchronise}, {}));
        }
    }
    EXPECT_TRUE(report.isSound()) << report.describe();
    EXPECT_GT(report.cutPoints, 50u);
}

} // namespace
} // namespace tavelin::test
