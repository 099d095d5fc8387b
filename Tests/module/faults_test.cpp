// A device that fails, goes away or answers short at any point of a volume's life: every request
// still answers (the module host sees to that), what was synchronised is kept, and the next life on
// a sound device starts.

#include "own_group.hpp"

#include "diagnostics/error_tally.hpp"
#include "diagnostics/event_log.hpp"
#include "hosts/module/faulty_resource.hpp"
#include "hosts/module/module_host.hpp"
#include "hosts/module/paths.hpp"
#include "platform/error_numbers.hpp"
#include "support/replaced_services.hpp"
#include "support/run_process.hpp"
#include "support/sample_volume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

// A mount that libntfs-3g gives up loses memory of the library's own, when the device fails at the
// wrong moment. Telling its losses from ours takes whole stacks.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:ntfs_device_mount\n";
}

namespace tavelin::test {

namespace {

using Call = FaultyResource::Call;
using Type = fskit::FSItemType;

constexpr std::size_t kKeptBytes = 300'000;

std::vector<std::byte> content(int seed, std::size_t length) {
    std::vector<std::byte> bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<std::byte>(i * 31 + i / 253 + static_cast<std::size_t>(seed));
    }
    return bytes;
}

// The device fails when its calls reach number `at`, in one of these ways.
enum class Way { once, fromThenOn, shortOnce, nothingOnce, alwaysShort };

struct Failure {
    Way way;
    int at;
    int calls = 0;
    bool struck = false;
    bool failedTransfer = false; // and not only a flush

    FaultyResource::Fault next(const FaultyResource::Transfer& transfer) {
        const bool reached =
            way == Way::alwaysShort || way == Way::fromThenOn ? calls >= at : calls == at;
        ++calls;
        if (!reached) {
            return {};
        }
        struck = true;
        failedTransfer = failedTransfer || transfer.call != Call::reachMedium;
        switch (way) {
        case Way::once:
            return {.error = fskit::fs_errorForPOSIXError(kEIO)};
        case Way::fromThenOn:
            return {.error = fskit::fs_errorForPOSIXError(kENXIO)};
        case Way::nothingOnce:
            return {.bytes = 0};
        default:
            return {.bytes = std::max<std::size_t>(transfer.length / 2, 512)};
        }
    }
};

// What a life on a faulty device got to.
struct Life {
    bool loaded = false;
    bool synchronised = false; // with "kept" whole
    bool unloaded = false;
};

void work(VolumeClient& volume, Life& life) {
    auto kept = volume.create(volume.root(), "kept", Type::file);
    const bool written = kept && volume.write(*kept, 0, content(1, kKeptBytes)) &&
                         volume.setXattr(*kept, "tag", content(2, 5000));
    life.synchronised = volume.synchronize() && written;

    auto folder = volume.create(volume.root(), "folder", Type::directory);
    if (folder) {
        for (int i = 0; i < 20; ++i) {
            (void)volume.create(*folder, "file " + std::to_string(i), Type::file);
        }
        auto moved = volume.lookup(*folder, "file 3");
        if (moved) {
            (void)volume.rename(*moved, *folder, "file 3", volume.root(), "moved", ItemRef());
            (void)volume.remove(*moved, volume.root(), "moved");
        }
        (void)volume.list(*folder, true);
    }
    (void)volume.createSymbolicLink(volume.root(), "link", "folder/file 7");
    (void)resolve(volume, "link");
    (void)volume.statistics();
    if (kept) {
        std::vector<std::byte> buffer(kKeptBytes);
        (void)volume.read(*kept, 0, buffer);
    }
}

Life live(const std::filesystem::path& image, Failure& failure) {
    ModuleHost host(std::make_shared<FaultyResource>(
        std::make_shared<ImageResource>(image),
        [&](const auto& transfer) { return failure.next(transfer); }));
    Life life;
    (void)host.probe();
    life.loaded = static_cast<bool>(host.load({}));
    if (life.loaded && host.activate({}) && host.mount({})) {
        work(host.volume(), life);
    }
    // Takes the steps that are left, unload among them.
    life.unloaded = static_cast<bool>(host.close());
    return life;
}

// "kept" is whole on a sound device.
void expectKept(const std::filesystem::path& image) {
    const auto host = ModuleHost::openImage(image);
    const Found kept = resolve(host->volume(), "kept").get();
    std::vector<std::byte> buffer(kKeptBytes + 1);
    buffer.resize(host->volume().read(kept.item, 0, buffer).get());
    EXPECT_EQ(buffer, content(1, kKeptBytes));
    EXPECT_EQ(host->volume().getXattr(kept.item, "tag").get(), content(2, 5000));
    EXPECT_TRUE(host->close());
}

std::size_t deviceErrorEvents(std::uint64_t from) {
    std::size_t count = 0;
    const std::string text = events().read(from).text;
    for (std::size_t at = 0; (at = text.find("\"ev\":\"device_error\"", at)) != std::string::npos;
         ++at) {
        ++count;
    }
    return count;
}

class FaultLadder : public ::testing::TestWithParam<Way> {};

TEST_P(FaultLadder, EveryStepIsSurvivedAndReported) {
    const ReplacedServices noTimer; // only the requests themselves reach the device
    bool struck = true;
    int synchronised = 0;
    for (int at = 0; struck; at += GetParam() == Way::once ? 1 : 3) {
        SCOPED_TRACE("at call " + std::to_string(at));
        const SampleVolume sample;
        Failure failure{GetParam(), at};
        const std::uint64_t logStart = events().read(0).offset;
        const Life life = live(sample.image(), failure);
        struck = failure.struck;

        // Short transfers are continued and no news.
        const bool news = GetParam() == Way::once || GetParam() == Way::fromThenOn;
        EXPECT_EQ(deviceErrorEvents(logStart) > 0, news && failure.failedTransfer);
        if (GetParam() == Way::alwaysShort) {
            ASSERT_TRUE(life.loaded && life.synchronised && life.unloaded);
        }
        if (!struck) {
            ASSERT_TRUE(life.synchronised && life.unloaded);
        }
        if (life.synchronised) {
            ++synchronised;
            if (GetParam() == Way::fromThenOn) {
                // Between the writes of a record and of its mirror, a volume needs repair to be
                // mounted.
                runOrThrow({"ntfsfix", sample.image()});
            }
            expectKept(sample.image());
        }
    }
    EXPECT_GT(synchronised, 0);
}

INSTANTIATE_TEST_SUITE_P(Ways, FaultLadder,
                         ::testing::Values(Way::once, Way::fromThenOn, Way::shortOnce,
                                           Way::nothingOnce, Way::alwaysShort));

// The medium is pulled out while there is work to write back.
TEST(LostDevice, IsReportedByEveryRequestAndTheDiagnostics) {
    const ReplacedServices noTimer;
    const SampleVolume sample;
    const auto image = std::make_shared<ImageResource>(sample.image());
    ModuleHost host(image);
    host.open();
    const auto logStart = events().read(0).offset;
    {
        const ItemRef file = host.volume().create(host.volume().root(), "f", Type::file).get();
        image->revoke();
        (void)host.volume().write(file, 0, content(3, 100'000));
        for (int i = 0; i < 30; ++i) {
            const auto answer = host.volume().synchronize();
            ASSERT_FALSE(answer);
            EXPECT_TRUE(answer.error().code() == kENXIO || answer.error().code() == kEIO);
        }
    }
    EXPECT_FALSE(host.close());
    EXPECT_FALSE(host.isLoaded());
    EXPECT_EQ(deviceErrorEvents(logStart), 20u);
    const std::string log = events().read(logStart).text;
    EXPECT_NE(log.find("\"ev\":\"unload\""), std::string::npos);
    EXPECT_NE(log.find("\"ok\":false"), std::string::npos);
}

// Success is only answered once the image itself has been flushed, after all writes to it.
TEST(Durability, IsAskedOfTheMediumAndItsFailureAnswered) {
    const ReplacedServices noTimer;
    const SampleVolume sample;
    std::vector<Call> calls;
    bool fails = false;
    ModuleHost host(std::make_shared<FaultyResource>(
        std::make_shared<ImageResource>(sample.image()), [&](const auto& transfer) {
            calls.push_back(transfer.call);
            const bool failing = fails && transfer.call == Call::reachMedium;
            return failing ? FaultyResource::Fault{.error = fskit::fs_errorForPOSIXError(kEIO)}
                           : FaultyResource::Fault{};
        }));
    const auto flushes = [&] { return std::count(calls.begin(), calls.end(), Call::reachMedium); };
    host.open();
    {
        const ItemRef file = host.volume().create(host.volume().root(), "f", Type::file).get();
        const auto write = [&] { (void)host.volume().write(file, 0, content(4, 10'000)).get(); };
        write();
        calls.clear();
        EXPECT_TRUE(host.volume().synchronize(fskit::FSSyncFlags::noWait));
        EXPECT_EQ(flushes(), 0);
        EXPECT_TRUE(host.volume().synchronize());
        EXPECT_EQ(flushes(), 1);
        EXPECT_EQ(calls.back(), Call::reachMedium);
        EXPECT_EQ(calls.front(), Call::write);
        fails = true;
        write();
        EXPECT_FALSE(host.volume().synchronize());
        fails = false;
        write();
    }
    calls.clear();
    EXPECT_TRUE(host.close());
    EXPECT_EQ(calls.back(), Call::reachMedium);

    host.open();
    fails = true;
    EXPECT_FALSE(host.close());
    EXPECT_FALSE(host.isLoaded());
}

// Reading changes nothing on the image, not even on one that Windows left unfinished.
TEST(ReadOnly, LeavesTheImageByteIdentical) {
    enum class Kind { clean, hibernated, notUnmounted };
    for (const Kind kind : {Kind::clean, Kind::hibernated, Kind::notUnmounted}) {
        SCOPED_TRACE(static_cast<int>(kind));
        const SampleVolume sample;
        {
            const auto host = ModuleHost::openImage(sample.image());
            Life life;
            work(host->volume(), life);
            if (kind == Kind::hibernated) {
                std::vector<std::byte> header(4096);
                std::memcpy(header.data(), "hibr", 4);
                const ItemRef file =
                    host->volume().create(host->volume().root(), "hiberfil.sys", Type::file).get();
                (void)host->volume().write(file, 0, header).get();
            }
            if (kind == Kind::notUnmounted) {
                // As after a power cut: what is on the device now is all there is.
                ASSERT_TRUE(host->volume().synchronize());
                std::filesystem::copy_file(sample.image(), sample.folder() / "cut.img");
            }
            ASSERT_TRUE(host->close());
        }
        const std::filesystem::path image =
            kind == Kind::notUnmounted ? sample.folder() / "cut.img" : sample.image();
        const std::string before = readFile(image);
        for (const ModuleHost::Words& words : {ModuleHost::Words{"-o", "ro"}, {}}) {
            if (words.empty() && kind != Kind::hibernated) {
                continue;
            }
            const auto host = ModuleHost::openImage(image, words);
            EXPECT_TRUE(host->volume().isReadOnly());
            EXPECT_EQ(host->fellBackToReadOnly(), words.empty());
            (void)walk(host->volume(), host->volume().root(), [](auto&, auto&) {
                return true;
            }).get();
            const Found kept = resolve(host->volume(), "kept").get();
            EXPECT_EQ(kept.attributes.size(), kKeptBytes);
            const auto refused = host->volume().write(kept.item, 0, content(5, 100));
            ASSERT_FALSE(refused);
            EXPECT_EQ(refused.error().code(), kEROFS);
            EXPECT_TRUE(host->close());
            EXPECT_TRUE(readFile(image) == before);
        }
    }
}

} // namespace

} // namespace tavelin::test
