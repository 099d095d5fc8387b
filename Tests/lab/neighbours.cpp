#include "lab/neighbours.hpp"

#include "check/image_editor.hpp"
#include "core/journal/journal.hpp"
#include "core/ntfs_volume.hpp"
#include "hosting/module_host.hpp"
#include "lab/disk_device.hpp"
#include "lab/host_disk.hpp"
#include "lab/others_view.hpp"
#include "lab/structural_check.hpp"
#include "support/replaced_services.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace tavelin::test {

const std::map<Neighbour, const char*> kNeighbourNames{
    {Neighbour::nothing, "nothing"},
    {Neighbour::driver, "a driver that writes"},
    {Neighbour::driverWithoutLog, "the same, its $LogFile undone"},
    {Neighbour::journaledPage, "a journaled page edited"},
    {Neighbour::otherPage, "another page edited"},
    {Neighbour::restartPage, "a restart page of Windows"},
    {Neighbour::movedLog, "$LogFile moved"},
    {Neighbour::truncated, "the volume truncated"}};

namespace {

using Image = std::vector<std::uint8_t>;

constexpr std::uint64_t kPage = LogFile::kPage;
const std::string kTheirs = "theirs";    // the directory of the files that a driver makes
const std::string kEdited = "stable/11"; // the file whose content is edited

Image imageOf(const Bytes& bytes) {
    const auto* const first = reinterpret_cast<const std::uint8_t*>(bytes.data());
    return {first, first + bytes.size()};
}

// What waits in the journal of an image; none where the records are not valid.
std::vector<std::uint64_t> journaledPages(const Image& image) {
    const auto device = std::make_shared<MemoryDevice>(image);
    std::optional<Journal> journal;
    JournalAbsence absence{};
    JournaledPages pages;
    if (Journal::find(device, journal, absence) != 0 || !journal ||
        journal->readPending(pages) != 0) {
        return {};
    }
    std::vector<std::uint64_t> numbers;
    for (const auto& [number, content] : pages.content) {
        numbers.push_back(number);
    }
    return numbers;
}

// What the neighbour left behind and must find again.
struct Traces {
    std::map<std::string, std::string> files;
    std::optional<std::uint64_t> edited; // bytes from the start of the device
};

// As ntfs-3g does, over the same library. What it cannot do on half a flush it leaves.
void mountElsewhere(Image& image, Traces& traces) {
    const auto device = std::make_shared<MemoryDevice>(image);
    try {
        const auto volume = NTFSVolume::open(device, false);
        const auto directory =
            volume->create(kTheirs, NTFSVolume::kRootIno, NTFSItemType::directory);
        for (int i = 0; i < 12; ++i) {
            const std::string name = std::to_string(i);
            const std::string content = pattern(static_cast<std::uint64_t>(i), 100 + i * 900);
            volume->write(volume->create(name, directory, NTFSItemType::file), 0, bytesOf(content));
            traces.files[kTheirs + "/" + name] = content;
        }
        volume->unmount();
    } catch (const NTFSError&) {
        traces.files.clear(); // it has said so itself
    }
    image = device->bytes;
}

void edit(Image& image, std::uint64_t at, Traces& traces) {
    image.at(at) ^= 1;
    traces.edited = at;
}

void editContent(Image& image, const std::vector<std::uint64_t>& journaled,
                 const std::string& content, Traces& traces) {
    for (std::uint64_t at = 0; at < image.size(); at += kPage) {
        if (std::memcmp(&image[at], content.data(), kPage) == 0 &&
            !std::ranges::binary_search(journaled, at / kPage)) {
            return edit(image, at + 7, traces);
        }
    }
}

void moveLog(Image& image) {
    constexpr std::uint64_t moved = 8; // clusters, fewer than lie before the records
    ImageEditor editor(image);
    const std::uint64_t cluster = editor.boot().cluster_size;
    ntb::run run = editor.runs(ntb::record_logfile, ntb::at_data).at(0);
    for (std::uint64_t i = 0; i < moved; ++i) {
        editor.setBit(ntb::record_bitmap, ntb::at_data, "", run.lcn + i, false);
    }
    run.lcn += moved;
    run.length -= moved;
    editor.setRuns(ntb::record_logfile, ntb::at_data, "", {run});
    editor.editAttribute(ntb::record_logfile, ntb::at_data, "", [&](ImageEditor::Bytes attribute) {
        ntb::put_at(attribute.data(), 0x18, 8, run.length - 1);
        for (const std::uint64_t size : {0x28, 0x30, 0x38}) {
            ntb::put_at(attribute.data(), size, 8, run.length * cluster);
        }
    });
    const std::uint64_t record = editor.offsetOfRecord(ntb::record_logfile);
    const std::uint64_t mirror =
        editor.boot().mftmirr_lcn * cluster + ntb::record_logfile * editor.boot().record_size;
    std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(record), editor.boot().record_size,
                image.begin() + static_cast<std::ptrdiff_t>(mirror));
}

Traces act(Neighbour neighbour, Image& image, const std::vector<std::uint64_t>& journaled,
           const std::string& content) {
    Traces traces;
    const ntb_extent log = logOf(std::as_bytes(std::span(image)));
    const auto logBegin = image.begin() + static_cast<std::ptrdiff_t>(log.offset);
    const Image before(logBegin, logBegin + static_cast<std::ptrdiff_t>(log.length));
    switch (neighbour) {
    case Neighbour::nothing:
        break;
    case Neighbour::driver:
    case Neighbour::driverWithoutLog:
        mountElsewhere(image, traces);
        if (neighbour == Neighbour::driverWithoutLog) {
            std::copy(before.begin(), before.end(),
                      image.begin() + static_cast<std::ptrdiff_t>(log.offset));
        }
        break;
    case Neighbour::journaledPage: {
        // Not in $MFTMirr, which a mount makes agree with $MFT.
        ImageEditor editor(image);
        const std::uint64_t mirror = editor.boot().mftmirr_lcn * editor.boot().cluster_size / kPage;
        const auto page = std::find_if(journaled.rbegin(), journaled.rend(),
                                       [&](std::uint64_t number) { return number != mirror; });
        if (page != journaled.rend()) {
            edit(image, *page * kPage + kPage - 100, traces);
        }
        break;
    }
    case Neighbour::otherPage:
        editContent(image, journaled, content.substr(kPage), traces);
        break;
    case Neighbour::restartPage:
        std::memcpy(&*logBegin, "RSTR", 4);
        break;
    case Neighbour::movedLog:
        moveLog(image);
        break;
    case Neighbour::truncated:
        image.resize(image.size() / 8 * 7 / kPage * kPage);
        break;
    }
    return traces;
}

class NeighbourTrial {
  public:
    NeighbourTrial(const Recording& recording, std::size_t end, Neighbour neighbour)
        : recording_(recording), neighbour_(neighbour) {
        for (std::size_t i = 0; i < recording.states.size(); ++i) {
            promised_ = recording.persistedAt[i] <= end ? i : promised_;
        }
    }

    // Adds what is wrong to `complaint`.
    NeighbourCounts run(const Bytes& cut, std::string& complaint) {
        Image image = imageOf(cut);
        const auto journaled = journaledPages(image);
        counts_.images = 1;
        if (neighbour_ == Neighbour::nothing) {
            const std::string damage = unmarkedDamage(cut);
            if (!damage.empty()) {
                fault(counts_.unmarked, "not marked, though " + damage);
            }
        }
        const Traces traces =
            act(neighbour_, image, journaled, recording_.states[0].entries.at(kEdited).content);
        // A flush that nobody needs any more is not missed.
        const bool waited = !journaled.empty();
        counts_.discarded = waited && journaledPages(image).empty() ? 1 : 0;
        remount(image, traces);
        counts_.replayed = waited && counts_.refused + counts_.discarded == 0 ? 1 : 0;
        complaint = complaint_;
        return counts_;
    }

  private:
    void fault(std::uint64_t& count, const std::string& what) {
        count = 1;
        complaint_ += (complaint_.empty() ? "" : "; ") + what;
    }

    void remount(const Image& image, const Traces& traces) {
        const ReplacedServices services;
        const auto* const first = reinterpret_cast<const std::byte*>(image.data());
        const auto disk = std::make_shared<HostDisk>(Bytes(first, first + image.size()));
        ModuleHost host(disk);
        bool isSaid = false;
        try {
            host.open();
            isSaid = !host.notices().empty() || !host.refusalToWrite().empty();
            for (const std::string& notice : host.notices()) {
                counts_.refused |= notice.find("written to by another system") != std::string::npos;
            }
            counts_.refused |=
                host.refusalToWrite().find("written to by another") != std::string::npos;
            counts_.readOnly = host.volume().isReadOnly() ? 1 : 0;
            compare(takeSnapshot(host.volume()), traces);
            host.close().get();
        } catch (const std::exception&) {
            counts_.readOnly = 1; // the mount's error says it
            isSaid = true;
        }
        const Image left = imageOf(disk->bytes);
        if (traces.edited && left.at(*traces.edited) != image.at(*traces.edited)) {
            fault(counts_.theirsLost, "an edited byte");
        }
        // A byte changed at random may break what it lies in, and a truncated volume is none.
        const bool isDamage =
            neighbour_ == Neighbour::journaledPage || neighbour_ == Neighbour::truncated;
        if (const std::string found =
                isSaid || isDamage ? "" : structuralComplaints(std::as_bytes(std::span(left)));
            !found.empty()) {
            fault(counts_.unsaid, found);
        }
    }

    void compare(Snapshot found, const Traces& traces) {
        for (const auto& [path, content] : traces.files) {
            const auto entry = found.entries.find(path);
            if (entry == found.entries.end() || entry->second.content != content) {
                fault(counts_.theirsLost, path);
            }
        }
        const bool isDamage =
            neighbour_ == Neighbour::journaledPage || neighbour_ == Neighbour::truncated;
        if (isDamage || counts_.refused + counts_.discarded > 0) {
            return; // the neighbour's doing
        }
        std::erase_if(found.entries, [](const auto& entry) {
            return entry.first == kTheirs || entry.first.starts_with(kTheirs + "/");
        });
        if (traces.edited) {
            found.entries.erase(kEdited);
        }
        std::vector<Snapshot> moments(recording_.states.begin() +
                                          static_cast<std::ptrdiff_t>(promised_),
                                      recording_.states.end());
        for (Snapshot& moment : moments) {
            if (traces.edited) {
                moment.entries.erase(kEdited);
            }
        }
        if (std::ranges::find(moments, found) != moments.end() || hasNewerBytes(moments, found)) {
            return;
        }
        fault(counts_.promiseLost, "the volume is not as at any moment since the promise");
    }

    const Recording& recording_;
    const Neighbour neighbour_;
    std::size_t promised_ = 0;
    NeighbourCounts counts_;
    std::string complaint_;
};

} // namespace

void NeighbourReport::add(const NeighbourReport& other) {
    for (const auto& [neighbour, more] : other.counts) {
        NeighbourCounts& sum = counts[neighbour];
        sum.images += more.images;
        sum.replayed += more.replayed;
        sum.refused += more.refused;
        sum.readOnly += more.readOnly;
        sum.discarded += more.discarded;
        sum.theirsLost += more.theirsLost;
        sum.promiseLost += more.promiseLost;
        sum.unsaid += more.unsaid;
        sum.unmarked += more.unmarked;
    }
    examples.insert(examples.end(), other.examples.begin(), other.examples.end());
    examples.resize(std::min(examples.size(), kExamplesMax));
}

std::string NeighbourReport::table() const {
    constexpr const char* kRow = "{:<32}{:>9}{:>10}{:>9}{:>11}{:>11}{:>13}{:>14}{:>8}{:>10}\n";
    std::string text =
        fmt::format(kRow, "", "images", "replayed", "refused", "discarded", "read-only",
                    "theirs lost", "promise lost", "unsaid", "unmarked");
    for (const auto& [neighbour, n] : counts) {
        text +=
            fmt::format(kRow, kNeighbourNames.at(neighbour), n.images, n.replayed, n.refused,
                        n.discarded, n.readOnly, n.theirsLost, n.promiseLost, n.unsaid, n.unmarked);
    }
    for (const std::string& example : examples) {
        text += example + "\n";
    }
    return text;
}

NeighbourReport tryNeighbours(const Bytes& base, const Script& script) {
    const Recording recording = recordTavelin(base, script);
    NeighbourReport report;
    std::mt19937_64 unused;
    for (std::size_t end = 0; end <= recording.events.size(); ++end) {
        if (end > 0 && recording.events[end - 1].flush) {
            continue; // the medium is as it was
        }
        const Bytes cut = afterCut(base, recording.events, end, Cut::prefix, unused);
        for (const auto& [neighbour, name] : kNeighbourNames) {
            std::string complaint;
            NeighbourReport one;
            one.counts[neighbour] = NeighbourTrial(recording, end, neighbour).run(cut, complaint);
            if (!complaint.empty()) {
                one.examples.push_back(fmt::format("{}: cut after event {} of {}, then {}: {}",
                                                   script.describe(), end, recording.events.size(),
                                                   name, complaint));
            }
            report.add(one);
        }
    }
    return report;
}

} // namespace tavelin::test
