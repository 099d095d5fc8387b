// windows_images DIRECTORY: makes disks for trying out what Windows makes of volumes that Tavelin
// left, whole or cut off, and a list of what each of them is. docs/windows.md says what to do with
// them. Mounts the driver ntfs-3g, as root.
#include "core/journal/journal_record.hpp"
#include "crash/virtual_disk.hpp"
#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "lab/others_view.hpp"
#include "lab/recording.hpp"
#include "support/bridge_volume.hpp"
#include "support/reparse_items.hpp"
#include "support/replaced_services.hpp"
#include "support/usn_journal.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

using namespace tavelin;
using namespace tavelin::test;

constexpr std::uint64_t kVolumeBytes = 32u << 20;
constexpr std::uint64_t kRecords = 64u << 10; // where the journal begins in $LogFile

// One disk, and what has to be true of it.
struct WindowsImage {
    std::string name; // of the file
    std::string what;
    Bytes volume;
    bool isDirty = false;
    const char* log = "blank";
    bool isHalf = false; // without the flush that waits in the log the volume is unsound
};

// What a flush of many files leaves at each step of its way, and the end of the journal.
struct Moments {
    Bytes records;    // the flush is in the journal and nowhere else
    Bytes half;       // as much in disorder as it ever is
    Bytes headerOnly; // the journal is about to end
    Bytes whole;
};

Moments momentsOfAFlush() {
    const Bytes base = preparedVolume({.bytes = kVolumeBytes});
    const auto change = std::ranges::find(allChanges(), "create many", &Workload::name);
    const Recording recording = recordTavelin(base, {{&*change}, Finish::unmount});
    const std::uint64_t header = logOf(base).offset + kRecords;
    Moments moments;
    std::size_t most = 0;
    std::mt19937_64 unused;
    for (std::size_t end = 1; end <= recording.events.size(); ++end) {
        Bytes image = afterCut(base, recording.events, end, Cut::prefix, unused);
        const auto record = JournalRecord::parse(&image[header]);
        if (!record) {
            moments.whole = std::move(image);
        } else if (record->pages == 0) {
            moments.headerOnly = std::move(image);
        } else if (moments.records.empty()) {
            moments.records = recording.events[end - 1].flush ? std::move(image) : Bytes();
        } else if (const auto found = damageWithoutJournal(image).size(); found > most) {
            most = found;
            moments.half = std::move(image);
        }
    }
    return moments;
}

// Opens a volume as any host does, and leaves it unmounted.
template<typename Work>
Bytes worked(Bytes volume, Work work) {
    const ReplacedServices services;
    const auto disk = std::make_shared<HostDisk>(std::move(volume));
    ModuleHost host(disk);
    host.open();
    work(host.volume());
    host.close().get();
    return disk->bytes;
}

Bytes volumeOfRandomWork() {
    OperationSource source(1);
    Model model(true);
    const SampleVolume sample({.bytes = kVolumeBytes});
    return worked(loadImage(sample.image()), [&](VolumeClient& volume) {
        for (int i = 0; i < 3000; ++i) {
            const Operation op = source.next(model.tree());
            if (op.verb != Verb::reload && model.apply(op).error == 0) {
                carryOut(volume, op);
            }
        }
    });
}

// Each of Windows' four formats twice; the second one was written to, and so written out plainly.
Bytes volumeOfCompressedFiles() {
    const SampleVolume sample({.bytes = kVolumeBytes});
    std::vector<ReparseItem> items = reparseItems();
    std::erase_if(items, [](const auto& i) { return i.kind != ReparseItem::Kind::compressed; });
    {
        const DriverMount driver(sample, kReparseItemOptions);
        for (const ReparseItem& item : items) {
            makeReparseItem(driver, item.name, item);
            makeReparseItem(driver, item.name + " written to", item);
        }
    }
    return worked(loadImage(sample.image()), [&](VolumeClient& volume) {
        for (const ReparseItem& item : items) {
            carryOut(volume, {Verb::write, item.name + " written to", "", 1000, 5000, 1});
        }
    });
}

WindowsImage stampedJournal() {
    constexpr USNMax kFound{1u << 20, 256u << 10, 0x01d9'0000'0000'0000, 0};
    BridgeVolume volume({.bytes = kVolumeBytes});
    const std::uint64_t file = volume.make("before.txt");
    // One record of version 2: "before.txt" was created and closed.
    const std::string name = utf16("before.txt");
    const std::string record = littleEndian(60 + name.size(), 4) + littleEndian(2, 4) +
                               littleEndian(file, 8) + littleEndian(NTB_ROOT_INO, 8) +
                               littleEndian(0, 8) + littleEndian(kFound.id, 8) +
                               littleEndian(0x80000100, 4) + littleEndian(0, 12) +
                               littleEndian(name.size(), 2) + littleEndian(60, 2) + name;
    const std::uint64_t journal = makeUSNJournal(volume, kFound, record);
    EXPECT_EQ(volume.unmount(), 0);
    EXPECT_EQ(volume.mount(), 0);
    volume.make("after.txt");
    const USNMax max = usnMaxOf(volume, journal);
    EXPECT_EQ(volume.unmount(), 0);
    const auto bytes = std::as_bytes(std::span(volume.memory().bytes));
    return {"10-usn-journal",
            fmt::format("change journal with id 0x{:016x} until 0x{:016x} was stamped into it; "
                        "lowest valid USN 0x{:x}",
                        kFound.id, max.id, max.lowestUSN),
            {bytes.begin(), bytes.end()}};
}

std::vector<WindowsImage> allImages() {
    const Moments moments = momentsOfAFlush();
    std::vector<WindowsImage> images;
    const auto addBoth = [&](const char* name, const char* what, const Bytes& volume,
                             const char* log, bool isHalf) {
        for (const bool isDirty : {false, true}) {
            images.push_back(
                {fmt::format("{:02}-{}{}", images.size() + 1, name, isDirty ? "-dirty" : ""), what,
                 volume, isDirty, log, isHalf});
            setMark(images.back().volume, isDirty);
        }
    };
    addBoth("blank", "unmounted", moments.whole, "blank", false);
    addBoth("header", "cut off as the journal ended", moments.headerOnly, "header", false);
    addBoth("records", "cut off before a flush of 30 new files went home", moments.records,
            "records", false);
    addBoth("half", "cut off while a flush of 30 new files went home", moments.half, "records",
            true);
    images.push_back({"09-zeros", "$LogFile of zeros", moments.whole, false, "zeros"});
    const ntb_extent log = logOf(moments.whole);
    std::ranges::fill(std::span(images.back().volume).subspan(log.offset, log.length), std::byte{});
    images.push_back(stampedJournal());
    images.push_back({"11-compressed", "system-compressed files, four of eight written to",
                      volumeOfCompressedFiles()});
    images.push_back({"12-used", "3,000 random changes", volumeOfRandomWork()});
    return images;
}

} // namespace

int main(int count, char** words) {
    if (count != 2 || !DriverMount::isPossible()) {
        fmt::print(stderr, "usage: windows_images DIRECTORY, as root and with /dev/fuse\n");
        return 2;
    }
    const std::filesystem::path directory = words[1];
    std::filesystem::create_directories(directory);
    std::string manifest;
    std::uint32_t number = 0x7a0e1000;
    for (const WindowsImage& image : allImages()) {
        writeVirtualDisk(directory / (image.name + ".vhd"), image.volume, ++number);
        manifest +=
            fmt::format(R"({{"image":"{}.vhd","what":"{}","log":"{}","dirty":{},"half":{}}})"
                        "\n",
                        image.name, image.what, image.log, image.isDirty, image.isHalf);
    }
    writeFile(directory / "manifest.jsonl", manifest);
    return ::testing::Test::HasFailure() ? 1 : 0;
}
