// One damage at a time, in volumes of every geometry: is it found, under its name and its path?
#include "check/check.hpp"
#include "check/filled_volume.hpp"
#include "check/image_editor.hpp"
#include "lab/disk_device.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <tuple>

namespace tavelin::test {
namespace {

using check::FindingClass;
using enum check::FindingClass;
using Bytes = ImageEditor::Bytes;

// ---- Damages -----------------------------------------------------------------------------------

struct Fault {
    FindingClass kind;
    std::string path; // "" where none can be known
    std::function<void(ImageEditor&)> plant;
    std::string found = {}; // words of the finding
};

// Writes a number at an offset of the bytes that an editor hands out.
ImageEditor::Edit put(size_t offset, unsigned width, uint64_t value) {
    return [=](Bytes b) { ntb::put_at(b.data(), offset, width, value); };
}

auto inRecord(std::string path, size_t offset, unsigned width, uint64_t value) {
    return [=](ImageEditor& e) { e.editRecord(e.record(path), put(offset, width, value)); };
}

auto inAttribute(std::string path, uint32_t type, std::string name, size_t offset, unsigned width,
                 uint64_t value) {
    return [=](ImageEditor& e) {
        e.editAttribute(e.record(path), type, name, put(offset, width, value));
    };
}

auto inValue(std::string path, uint32_t type, std::string name, size_t offset, unsigned width,
             uint64_t value) {
    return
        [=](ImageEditor& e) { e.editValue(e.record(path), type, name, put(offset, width, value)); };
}

auto inEntry(std::string directory, std::string name, size_t offset, unsigned width,
             uint64_t value) {
    return
        [=](ImageEditor& e) { e.editEntry(e.record(directory), name, put(offset, width, value)); };
}

// Of the first index block of /dir in use.
auto inIndexBlock(size_t offset, unsigned width, uint64_t value) {
    return
        [=](ImageEditor& e) { e.editIndexBlock(e.record("/dir"), 0, put(offset, width, value)); };
}

auto setBit(std::string path, uint32_t type, std::string name, bool value,
            std::function<uint64_t(ImageEditor&)> bit) {
    return [=](ImageEditor& e) { e.setBit(e.record(path), type, name, bit(e), value); };
}

uint64_t firstCluster(ImageEditor& e, const std::string& path) {
    return e.runs(e.record(path), ntb::at_data).at(0).lcn;
}

auto setRuns(std::string path, std::function<void(ImageEditor&, std::vector<ntb::run>&)> change) {
    return [=](ImageEditor& e) {
        std::vector<ntb::run> runs = e.runs(e.record(path), ntb::at_data);
        change(e, runs);
        e.setRuns(e.record(path), ntb::at_data, "", runs);
    };
}

// Changes where the nth entry of the top node of /dir's index leads to: the root, or, where the
// root has one child only, that one.
void editChild(ImageEditor& e, unsigned nth, const std::function<uint64_t(uint64_t)>& change) {
    const auto edit = [&](Bytes node, size_t header) {
        size_t at = header + ntb::u32_at(node.data(), header);
        const size_t last = header + ntb::u32_at(node.data(), header + 4);
        uint64_t first = 0;
        for (unsigned i = 0; at < last; ++i) {
            at += ntb::u16_at(node.data(), at + 8);
            first = i == 0 ? ntb::u64_at(node.data(), at - 8) : first;
            if (i == nth) {
                ntb::put_at(node.data(), at - 8, 8, change(first));
                return true;
            }
        }
        return false;
    };
    bool isDone = false;
    uint64_t child = 0;
    e.editValue(e.record("/dir"), ntb::at_index_root, "$I30", [&](Bytes root) {
        child = ntb::u64_at(root.data(), root.size() - 8);
        isDone = edit(root, 0x10);
    });
    const uint64_t unit = std::min<uint64_t>(e.boot().cluster_size, e.boot().index_block_size);
    if (!isDone) {
        const uint64_t perBlock =
            e.boot().index_block_size / (unit < e.boot().cluster_size ? 512 : unit);
        e.editIndexBlock(e.record("/dir"), child / perBlock,
                         [&](Bytes block) { isDone = edit(block, 0x18); });
    }
    ASSERT_TRUE(isDone);
}

void markFreeIndexBlock(ImageEditor& e) {
    uint64_t bits = 0;
    e.editAttribute(e.record("/dir"), ntb::at_index_allocation, "$I30", [&](Bytes b) {
        bits = ntb::u64_at(b.data(), 0x30) / e.boot().index_block_size;
    });
    e.editValue(e.record("/dir"), ntb::at_bitmap, "$I30", [&](Bytes b) {
        uint64_t bit = 0;
        while (bit < bits && (b[bit / 8] >> bit % 8 & 1) != 0) {
            ++bit;
        }
        ASSERT_LT(bit, bits) << "no free index block";
        b[bit / 8] = static_cast<uint8_t>(b[bit / 8] | 1u << bit % 8);
    });
}

// An index entry that leads to record 0 under a key of zeros.
auto staleEntry(std::string path, std::string index, size_t keySize, size_t dataSize) {
    return [=](ImageEditor& e) {
        const size_t data = 0x10 + keySize;
        std::vector<uint8_t> entry((data + dataSize + 7) / 8 * 8);
        ntb::put_at(entry.data(), 0, 2, data);
        ntb::put_at(entry.data(), 2, 2, dataSize);
        ntb::put_at(entry.data(), 8, 2, entry.size());
        ntb::put_at(entry.data(), 10, 2, keySize);
        e.addRootEntry(e.record(path), index, entry);
    };
}

void flip(ImageEditor& e, uint64_t offset) {
    e.image()[offset] ^= 0x55;
}

uint64_t volumeEnd(ImageEditor& e) {
    return e.boot().sectors * e.boot().sector_size;
}

std::vector<Fault> bootAndSystemFaults() {
    return {
        {bootSector, "", [](ImageEditor& e) { std::fill_n(e.image().begin(), 512, uint8_t{0}); }},
        {bootSectorCopy, "", [](ImageEditor& e) { flip(e, volumeEnd(e) + 100); }},
        {mftMirror, "/$MFTMirr",
         [](ImageEditor& e) {
             flip(e, e.boot().mftmirr_lcn * e.boot().cluster_size + e.boot().record_size + 0x50);
         }},
        {systemFile, "/xAttrDef", inValue("/$AttrDef", ntb::at_file_name, "", 0x42, 1, 'x')},
        {volumeInformation, "/$Volume",
         inValue("/$Volume", ntb::at_volume_information, "", 8, 1, 9)},
        {volumeDirty, "/$Volume", inValue("/$Volume", ntb::at_volume_information, "", 10, 2, 1)},
        {volumeFlags, "/$Volume",
         inValue("/$Volume", ntb::at_volume_information, "", 10, 2, 0x8000)},
        {upcaseTable, "/$UpCase", inValue("/$UpCase", ntb::at_data, "", 0x3b1 * 2, 2, 0x3b1)},
        {attributeDefinitions, "/$AttrDef", inValue("/$AttrDef", ntb::at_data, "", 0x80, 4, 0x500)},
        {logFile, "/$LogFile", inValue("/$LogFile", ntb::at_data, "", 65536, 4, 0x12345678)},
        {badClusters, "/$BadClus", inAttribute("/$BadClus", ntb::at_data, "$Bad", 0x40, 1, 'x')},
        {bitmapSize, "/$Bitmap", inAttribute("/$Bitmap", ntb::at_data, "", 0x30, 8, 3)},
        {clusterMarkedFree, "/other",
         setBit("/$Bitmap", ntb::at_data, "", false,
                [](ImageEditor& e) { return firstCluster(e, "/other"); })},
        {clusterMarkedUsed, "",
         setBit("/$Bitmap", ntb::at_data, "", true,
                [](ImageEditor& e) { return e.boot().clusters() - 3; })},
        {bitmapTail, "/$Bitmap",
         setBit("/$Bitmap", ntb::at_data, "", false,
                [](ImageEditor& e) { return e.boot().clusters(); })},
        {recordMarkedFree, "/file",
         setBit("/$MFT", ntb::at_bitmap, "", false,
                [](ImageEditor& e) { return e.record("/file"); })},
        {recordMarkedUsed, "",
         setBit("/$MFT", ntb::at_bitmap, "", true, [](ImageEditor& e) { return e.freeRecord(); })},
        {securityStream, "/$Secure", inValue("/$Secure", ntb::at_data, "$SDS", 0, 4, 1)},
        {securityCopy, "/$Secure",
         [](ImageEditor& e) {
             uint64_t vcn = 0x40000 / e.boot().cluster_size;
             for (const ntb::run& run : e.runs(ntb::record_secure, ntb::at_data, "$SDS")) {
                 if (vcn >= run.vcn && vcn < run.vcn + run.length) {
                     flip(e, (run.lcn + vcn - run.vcn) * e.boot().cluster_size + 30);
                 }
             }
         }},
        {securityDescriptor, "/$Boot", inValue("/$Boot", ntb::at_security_descriptor, "", 0, 1, 9)},
        {securityDescriptor, "/$Boot", // the owner behind the end
         inValue("/$Boot", ntb::at_security_descriptor, "", 4, 4, 0x180)},
        {securityIndex, "/$Secure",
         inValue("/$Secure", ntb::at_index_root, "$SII", 0x20 + 0x10, 4, 0x7fff)},
        {securityId, "/$Extend/$Quota",
         inValue("/$Extend/$Quota", ntb::at_standard_information, "", 0x34, 4, 0x9999)},
        {reparseNotIndexed, "/streams",
         [](ImageEditor& e) {
             e.editAttribute(e.record("/streams"), ntb::at_data, "bb", [](Bytes b) {
                 ntb::put_at(b.data(), 0, 4, ntb::at_reparse_point);
                 ntb::put_at(b.data(), 0x09, 1, 0);
             });
         }},
        {reparseIndex, "/$Extend/$Reparse", staleEntry("/$Extend/$Reparse", "$R", 12, 0)},
        {objectIdIndex, "/$Extend/$ObjId", staleEntry("/$Extend/$ObjId", "$O", 16, 56)},
        {objectIdNotIndexed, "/streams",
         [](ImageEditor& e) {
             // Makes an object id of the stream, which is after its own type in the order.
             e.editAttribute(e.record("/streams"), ntb::at_data, "aa", [](Bytes b) {
                 ntb::put_at(b.data(), 0, 4, ntb::at_object_id);
                 ntb::put_at(b.data(), 0x10, 4, 16);
                 ntb::put_at(b.data(), 0x14, 2, 0x10);
             });
         }},
    };
}

std::vector<Fault> recordFaults() {
    const auto firstRun = [](std::function<void(ImageEditor&, ntb::run&)> change) {
        return [=](ImageEditor& e, std::vector<ntb::run>& runs) { change(e, runs.at(0)); };
    };
    return {
        {recordMagic, "", [](ImageEditor& e) { e.rawRecord(e.record("/small"))[0] = 'X'; }},
        {recordTorn, "/file", [](ImageEditor& e) { e.rawRecord(e.record("/file"))[1023] ^= 1; }},
        {recordHeader, "/file", inRecord("/file", 0x1c, 4, 512)},
        {recordNumber, "/file", inRecord("/file", 0x2c, 4, 7)},
        {recordSequence, "/file", inRecord("/file", 0x10, 2, 0)},
        {extensionOrphan, "/file",
         [](ImageEditor& e) {
             const uint16_t sequence = ntb::record_view(e.rawRecord(e.record("/file"))).sequence();
             inRecord("/small", 0x20, 8, ntb::make_reference(e.record("/file"), sequence))(e);
         }},
        {attributeMalformed, "/file", inAttribute("/file", ntb::at_data, "", 4, 4, 0x13)},
        {attributeOrder, "/streams", inAttribute("/streams", ntb::at_data, "bb", 0, 4, 0x10)},
        {attributeInstance, "/file", inAttribute("/file", ntb::at_data, "", 0x0e, 2, 0)},
        {attributeTwice, "/streams",
         [](ImageEditor& e) {
             e.editAttribute(e.record("/streams"), ntb::at_data, "bb", [](Bytes b) {
                 ntb::put_at(b.data(), ntb::u16_at(b.data(), 0x0a), 4, 0x00610061);
             });
         }},
        {attributeType, "/file", inAttribute("/file", ntb::at_data, "", 0, 4, 0x88)},
        {attributeMissing, "/small", inAttribute("/small", ntb::at_data, "", 0, 4, 0xe0)},
        {extendedAttributes, "/small", inAttribute("/small", ntb::at_data, "", 0, 4, 0xe0)},
        {attributeValue, "/file",
         inAttribute("/file", ntb::at_standard_information, "", 0x10, 4, 0x20)},
        {attributeListMalformed, "/many", inValue("/many", ntb::at_attribute_list, "", 0x44, 2, 3)},
        {attributeListOrder, "/many",
         [](ImageEditor& e) {
             e.editValue(e.record("/many"), ntb::at_attribute_list, "", [](Bytes b) {
                 std::swap_ranges(b.begin(), b.begin() + 0x20, b.begin() + 0x20);
             });
         }},
        {attributeListStale, "/many", inValue("/many", ntb::at_attribute_list, "", 0x18, 2, 99)},
        {attributeListMissing, "/many", inValue("/many", ntb::at_attribute_list, "", 0x18, 2, 99)},
        {runListMalformed, "/file", inAttribute("/file", ntb::at_data, "", 0x40, 1, 0xff)},
        {runOutside, "/file", setRuns("/file", firstRun([](ImageEditor& e, ntb::run& run) {
                                          run.lcn = e.boot().clusters() - run.length + 1;
                                      }))},
        {runOrder, "/file", inAttribute("/file", ntb::at_data, "", 0x10, 8, 1)},
        {runHole, "/file",
         setRuns("/file", firstRun([](ImageEditor&, ntb::run& run) { run.is_hole = true; }))},
        {attributeSizes, "/file", inAttribute("/file", ntb::at_data, "", 0x30, 8, 1u << 30)},
        {allocatedSize, "/file", inAttribute("/file", ntb::at_data, "", 0x28, 8, 1u << 30)},
        {compressedSize, "/sparse", inAttribute("/sparse", ntb::at_data, "", 0x40, 8, 1u << 30)},
        {clusterUsedTwice, "/file", setRuns("/file", firstRun([](ImageEditor& e, ntb::run& run) {
                                                run.lcn = firstCluster(e, "/other");
                                            }))},
        {compressedData, "/sparse",
         [](ImageEditor& e) {
             inAttribute("/sparse", ntb::at_data, "", 0x0c, 2, ntb::attribute_compressed)(e);
             inAttribute("/sparse", ntb::at_data, "", 0x22, 1, 4)(e);
         },
         "from byte 0 on"},
    };
}

std::vector<Fault> nameFaults() {
    const std::string first = "/dir/" + numbered(0);
    return {
        {indexRoot, "/dir", inValue("/dir", ntb::at_index_root, "$I30", 4, 4, 5)},
        {indexRoot, "/dir",
         [](ImageEditor& e) { // entries behind the end of the root, which has room for them
             inValue("/dir", ntb::at_index_root, "$I30", 0x14, 4, 0x4000)(e);
             inValue("/dir", ntb::at_index_root, "$I30", 0x18, 4, 0x4000)(e);
         }},
        {indexBlock, "/dir",
         [](ImageEditor& e) { flip(e, e.offsetOfIndexBlock(e.record("/dir"), 0)); }},
        {indexBlock, "/dir", inIndexBlock(0x10, 8, 4096), "one that says it is 4096"},
        {indexBlockTorn, "/dir",
         [](ImageEditor& e) { flip(e, e.offsetOfIndexBlock(e.record("/dir"), 0) + 511); }},
        {indexEntry, "/dir", inIndexBlock(0x18 + 0x28 + 8, 2, 3)},
        {indexEntry, "/dir", inIndexBlock(0x18 + 0x28 + 8, 2, 0x8000)}, // longer than the block
        {indexOrder, "/dir", inEntry("/dir", numbered(3), 0x52, 2, 'z')},
        {indexChild, "/dir",
         [](ImageEditor& e) { editChild(e, 0, [](uint64_t) { return 99999; }); }},
        {indexBlockTwice, "/dir",
         [](ImageEditor& e) { editChild(e, 1, [](uint64_t child) { return child; }); }},
        {indexBlockMarkedFree, "/dir",
         setBit("/dir", ntb::at_bitmap, "$I30", false, [](ImageEditor&) { return 0; })},
        {indexBlockMarkedUsed, "/dir", markFreeIndexBlock},
        {fileName, "", inValue("/small", ntb::at_file_name, "", 0x41, 1, 9)},
        {linkCount, "/file", inRecord("/file", 0x12, 2, 5)},
        {directoryFlag, "/dir", inRecord("/dir", 0x16, 2, 1)},
        {nameMissing, "", inAttribute("/small", ntb::at_file_name, "", 0, 4, 0x40)},
        {nameParent, "/file/small",
         [](ImageEditor& e) {
             inValue("/small", ntb::at_file_name, "", 0, 8,
                     ntb::make_reference(e.record("/file"), 1))(e);
         }},
        {nameWithoutEntry, "/xmall", inValue("/small", ntb::at_file_name, "", 0x42, 1, 'x')},
        {entryWithoutName, "/small", inValue("/small", ntb::at_file_name, "", 0x42, 1, 'x')},
        {dosNameAlone, "/small", inValue("/small", ntb::at_file_name, "", 0x41, 1, 2)},
        {entryFreeRecord, first, inRecord(first, 0x16, 2, 0)},
        {entrySequence, first, inRecord(first, 0x10, 2, 77)},
        {entryParent, first, inEntry("/dir", numbered(0), 0x10, 4, 9)},
        {entryFlags, first, inEntry("/dir", numbered(0), 0x10 + 0x38, 1, 2)},
        {entrySizes, "/file", inEntry("/", "file", 0x10 + 0x30, 8, 77)},
        {directoryLoop, "",
         [](ImageEditor& e) {
             inValue("/outer", ntb::at_file_name, "", 0, 6, e.record("/outer/inner"))(e);
         }},
    };
}

// ---- Looking for them --------------------------------------------------------------------------

struct Seen {
    std::set<std::pair<FindingClass, std::string>> findings;
    std::string text;
    std::string unreadable;
};

Seen findingsOf(MemoryDevice& device, bool deep = false) {
    Seen seen;
    check::Options options;
    options.deep = deep;
    options.onFinding = [&](const check::Finding& finding) {
        seen.findings.emplace(finding.kind, finding.path);
        seen.text += check::oneLine(finding) + "\n";
    };
    seen.unreadable = check::checkVolume(device, options).unreadable;
    return seen;
}

class PlantedFaults : public testing::TestWithParam<VolumeGeometry> {
  protected:
    void SetUp() override { sound_ = filledImage(GetParam(), 400); }

    // Every fault has to be found, under its class and its path.
    void expectFound(const Fault& fault, MemoryDevice& device, bool deep) {
        const Seen seen = findingsOf(device, deep);
        const bool isFound = seen.findings.contains({fault.kind, fault.path}) &&
                             seen.text.find(fault.found) != std::string::npos;
        EXPECT_TRUE(isFound) << check::info(fault.kind).name << " in " << fault.path
                             << " not found, but\n"
                             << seen.text << seen.unreadable;
        classes_.insert(fault.kind);
        ++planted_;
        found_ += isFound ? 1 : 0;
    }
    void expectAll(const std::vector<Fault>& faults) {
        for (const Fault& fault : faults) {
            std::vector<uint8_t> image = sound_;
            ImageEditor editor(image);
            ASSERT_NO_THROW(fault.plant(editor)) << check::info(fault.kind).name;
            MemoryDevice device(std::move(image));
            expectFound(fault, device, fault.kind == compressedData);
        }
    }

    std::set<FindingClass> classes_;
    int planted_ = 0, found_ = 0;
    std::vector<uint8_t> sound_;
};

TEST_P(PlantedFaults, NoneAreFoundInSoundVolumes) {
    MemoryDevice device(sound_);
    const Seen seen = findingsOf(device, true);
    EXPECT_EQ(seen.text + seen.unreadable, "");
}

TEST_P(PlantedFaults, AreFound) {
    expectAll(bootAndSystemFaults());
    expectAll(recordFaults());
    expectAll(nameFaults());
    // Sectors that the device cannot read.
    MemoryDevice device(sound_);
    ImageEditor editor(device.bytes);
    for (const auto& [offset, kind, path] :
         {std::tuple{firstCluster(editor, "/other") * editor.boot().cluster_size, dataUnreadable,
                     "/other"},
          {editor.offsetOfIndexBlock(editor.record("/dir"), 0), indexBlockUnreadable, "/dir"},
          {editor.offsetOfRecord(editor.record("/file")), recordUnreadable, ""}}) {
        device.lost = {offset / MemoryDevice::kSector};
        expectFound({kind, path, nullptr}, device, true);
    }
    std::printf("%d of %d planted faults found, of %zu classes\n", found_, planted_,
                classes_.size());
    // Damage that cannot be planted by one change: so much of it that a part is not examined.
    EXPECT_EQ(classes_.size(), static_cast<size_t>(FindingClass::count) - 1);
}

INSTANTIATE_TEST_SUITE_P(Geometries, PlantedFaults,
                         testing::Values(VolumeGeometry{16u << 20, 512, 512},
                                         VolumeGeometry{16u << 20, 4096, 512},
                                         VolumeGeometry{40u << 20, 65536, 512},
                                         VolumeGeometry{32u << 20, 4096, 4096},
                                         VolumeGeometry{40u << 20, 65536, 4096}),
                         [](const auto& about) {
                             return "Cluster" + std::to_string(about.param.clusterSize) + "Sector" +
                                    std::to_string(about.param.sectorSize);
                         });

} // namespace
} // namespace tavelin::test
