#include "check/image_editor.hpp"

#include "NTFSBridge/ondisk/fixups.hpp"
#include "support/temp_directory.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tavelin::test {
namespace {

bool isNamed(std::span<const uint8_t> utf16, std::string_view name) {
    if (utf16.size() != name.size() * 2) {
        return false;
    }
    for (size_t i = 0; i < name.size(); ++i) {
        if (ntb::u16_at(utf16.data(), i * 2) != static_cast<uint8_t>(name[i])) {
            return false;
        }
    }
    return true;
}

std::string textOf(std::span<const uint8_t> utf16) {
    std::string text;
    for (size_t i = 0; i < utf16.size(); i += 2) {
        text += static_cast<char>(utf16[i]); // tests name files in ASCII
    }
    return text;
}

std::vector<ntb::run> runsOf(const ntb::attribute_view& attribute) {
    std::vector<ntb::run> runs;
    ntb::mapping_pairs_reader reader(attribute.mapping_pairs(), attribute.lowest_vcn());
    for (ntb::run run; reader.read(run) == ntb::mapping_pairs_reader::result::run;) {
        runs.push_back(run);
    }
    return runs;
}

unsigned widthOf(int64_t value) {
    unsigned width = 1;
    while (value < -(int64_t{1} << (width * 8 - 1)) || value >= int64_t{1} << (width * 8 - 1)) {
        ++width;
    }
    return width;
}

} // namespace

ImageEditor::ImageEditor(std::vector<uint8_t>& image) : image_(image) {
    const std::span<const uint8_t> bytes(image);
    if (ntb::parse_boot_sector(bytes.first<ntb::boot_sector_bytes>(), boot_) !=
        ntb::boot_fault::none) {
        throw std::runtime_error("no boot sector");
    }
    recordCount_ = 1;
    withAttribute(ntb::record_mft, ntb::at_data, "", 0, [&](ntb::attribute_view data, Bytes) {
        recordCount_ = data.data_size() / boot_.record_size;
        if (runsOf(data).size() != 1) {
            throw std::runtime_error("$MFT is in pieces");
        }
    });
    mapPaths();
}

void ImageEditor::mapPaths() {
    std::map<uint64_t, std::pair<uint64_t, std::string>> names;
    for (uint64_t number = 0; number < recordCount_; ++number) {
        if (ntb::record_view(rawRecord(number)).base() != 0) {
            continue;
        }
        try {
            withAttribute(number, ntb::at_file_name, "", 0, [&](ntb::attribute_view name, Bytes) {
                const auto value = name.value();
                names[number] = {ntb::reference_record(ntb::u64_at(value.data(), 0)),
                                 textOf(value.subspan(0x42, value[0x40] * 2u))};
            });
        } catch (const std::runtime_error&) {
            continue; // a free record, or one without a name
        }
    }
    records_["/"] = ntb::record_root;
    for (const auto& [number, name] : names) {
        std::string path = "/" + name.second;
        for (uint64_t at = name.first; at != ntb::record_root && names.contains(at);
             at = names[at].first) {
            path.insert(0, "/" + names[at].second);
        }
        records_[path] = number;
    }
}

uint64_t ImageEditor::record(const std::string& path) const {
    const auto found = records_.find(path);
    if (found == records_.end()) {
        throw std::runtime_error(path + ": not found");
    }
    return found->second;
}

uint64_t ImageEditor::offsetOfRecord(uint64_t number) const {
    return boot_.mft_lcn * boot_.cluster_size + number * boot_.record_size;
}

ImageEditor::Bytes ImageEditor::rawRecord(uint64_t number) {
    return Bytes(image_).subspan(offsetOfRecord(number), boot_.record_size);
}

void ImageEditor::editRecord(uint64_t number, const Edit& edit) {
    const Bytes record = rawRecord(number);
    const std::vector<uint8_t> raw(record.begin(), record.end());
    const ntb::record_view view(record);
    if (!view.has_magic() || !view.in_use() ||
        ntb::apply_fixups(record) != ntb::fixup_result::good) {
        throw std::runtime_error("no record " + std::to_string(number));
    }
    const std::vector<uint8_t> before(record.begin(), record.end());
    edit(record);
    if (std::ranges::equal(record, before)) {
        std::ranges::copy(raw, record.begin());
        return;
    }
    ntb::insert_fixups(record);
    if (number < std::max<uint64_t>(4, boot_.cluster_size / boot_.record_size)) {
        std::ranges::copy(record, image_.begin() + static_cast<std::ptrdiff_t>(
                                                       boot_.mftmirr_lcn * boot_.cluster_size +
                                                       number * boot_.record_size));
    }
}

void ImageEditor::withAttribute(
    uint64_t number, uint32_t type, std::string_view name, unsigned nth,
    const std::function<void(ntb::attribute_view, Bytes record)>& work) {
    bool isDone = false;
    const auto look = [&](Bytes record) {
        ntb::attribute_reader reader{ntb::record_view(record)};
        ntb::attribute_view attribute;
        while (!isDone && reader.next(attribute) == ntb::attribute_reader::result::attribute) {
            if (attribute.type() == type && isNamed(attribute.name(), name) && nth-- == 0) {
                work(attribute, record);
                isDone = true;
            }
        }
    };
    editRecord(number, look);
    for (uint64_t other = 0; !isDone && other < recordCount_; ++other) {
        const ntb::record_view view(rawRecord(other));
        if (view.has_magic() && view.in_use() && view.base() != 0 &&
            ntb::reference_record(view.base()) == number) {
            editRecord(other, look);
        }
    }
    if (!isDone) {
        throw std::runtime_error("record " + std::to_string(number) + " has no such attribute");
    }
}

void ImageEditor::editAttribute(uint64_t number, uint32_t type, std::string_view name,
                                const Edit& edit, unsigned nth) {
    withAttribute(number, type, name, nth, [&](ntb::attribute_view attribute, Bytes record) {
        edit(record.subspan(static_cast<size_t>(attribute.bytes().data() - record.data()),
                            attribute.bytes().size()));
    });
}

void ImageEditor::editValue(uint64_t number, uint32_t type, std::string_view name,
                            const Edit& edit) {
    withAttribute(number, type, name, 0, [&](ntb::attribute_view attribute, Bytes record) {
        if (attribute.is_resident()) {
            edit(record.subspan(static_cast<size_t>(attribute.value().data() - record.data()),
                                attribute.value().size()));
            return;
        }
        const ntb::run first = runsOf(attribute).at(0);
        edit(Bytes(image_).subspan(
            first.lcn * boot_.cluster_size,
            std::min(attribute.data_size(), first.length * boot_.cluster_size)));
    });
}

uint64_t ImageEditor::offsetOfIndexBlock(uint64_t directory, uint64_t block) {
    uint64_t at = block * boot_.index_block_size;
    for (const ntb::run& run : runs(directory, ntb::at_index_allocation, "$I30")) {
        const uint64_t begin = run.vcn * boot_.cluster_size;
        if (at >= begin && at < begin + run.length * boot_.cluster_size) {
            return run.lcn * boot_.cluster_size + (at - begin);
        }
    }
    throw std::runtime_error("no such index block");
}

void ImageEditor::addRootEntry(uint64_t number, std::string_view name, Bytes entry) {
    editRecord(number, [&](Bytes record) {
        ntb::attribute_reader reader{ntb::record_view(record)};
        ntb::attribute_view root;
        while (reader.next(root) == ntb::attribute_reader::result::attribute &&
               (root.type() != ntb::at_index_root || !isNamed(root.name(), name))) {
        }
        uint8_t* const attribute = record.data() + (root.bytes().data() - record.data());
        uint8_t* const value = record.data() + (root.value().data() - record.data());
        const uint32_t used = ntb::u32_at(record.data(), 0x18);
        if (used + entry.size() > record.size()) {
            throw std::runtime_error("the record is full");
        }
        uint8_t* const at = value + 0x10 + ntb::u32_at(value, 0x10);
        std::memmove(at + entry.size(), at, static_cast<size_t>(record.data() + used - at));
        std::ranges::copy(entry, at);
        const auto grow = [&](uint8_t* field) {
            ntb::put_at(field, 0, 4, ntb::u32_at(field, 0) + entry.size());
        };
        grow(record.data() + 0x18);
        grow(attribute + 0x04);
        grow(attribute + 0x10);
        grow(value + 0x14);
        grow(value + 0x18);
    });
}

uint64_t ImageEditor::freeRecord() {
    for (uint64_t number = recordCount_ - 1; number >= ntb::first_user_record; --number) {
        const ntb::record_view view(rawRecord(number));
        if (view.has_magic() && !view.in_use()) {
            return number;
        }
    }
    throw std::runtime_error("no free record");
}

void ImageEditor::editIndexBlock(uint64_t directory, uint64_t block, const Edit& edit) {
    const Bytes bytes =
        Bytes(image_).subspan(offsetOfIndexBlock(directory, block), boot_.index_block_size);
    if (std::memcmp(bytes.data(), "INDX", 4) != 0 ||
        ntb::apply_fixups(bytes) != ntb::fixup_result::good) {
        throw std::runtime_error("no index block " + std::to_string(block));
    }
    edit(bytes);
    ntb::insert_fixups(bytes);
}

bool ImageEditor::editEntryIn(Bytes block, size_t header, std::string_view name, const Edit& edit) {
    size_t at = header + ntb::u32_at(block.data(), header);
    const size_t end = header + ntb::u32_at(block.data(), header + 4);
    while (at + 0x10 <= end && (ntb::u16_at(block.data(), at + 0x0c) & 2) == 0) {
        const Bytes entry = block.subspan(at, ntb::u16_at(block.data(), at + 8));
        if (isNamed(entry.subspan(0x52, entry[0x50] * 2u), name)) {
            edit(entry);
            return true;
        }
        at += entry.size();
    }
    return false;
}

void ImageEditor::editEntry(uint64_t directory, std::string_view name, const Edit& edit) {
    bool isDone = false;
    editValue(directory, ntb::at_index_root, "$I30",
              [&](Bytes root) { isDone = editEntryIn(root, 0x10, name, edit); });
    const uint64_t blocks = isDone ? 0 : runs(directory, ntb::at_index_allocation, "$I30").size();
    for (uint64_t block = 0; !isDone && blocks > 0; ++block) {
        try {
            editIndexBlock(directory, block,
                           [&](Bytes bytes) { isDone = editEntryIn(bytes, 0x18, name, edit); });
        } catch (const std::runtime_error&) {
            if (block > 1000) {
                throw;
            }
        }
    }
    if (!isDone) {
        throw std::runtime_error(std::string(name) + ": no such entry");
    }
}

std::vector<ntb::run> ImageEditor::runs(uint64_t number, uint32_t type, std::string_view name) {
    std::vector<ntb::run> runs;
    withAttribute(number, type, name, 0,
                  [&](ntb::attribute_view attribute, Bytes) { runs = runsOf(attribute); });
    return runs;
}

void ImageEditor::setRuns(uint64_t number, uint32_t type, std::string_view name,
                          const std::vector<ntb::run>& runs) {
    std::vector<uint8_t> pairs;
    int64_t last = 0;
    for (const ntb::run& run : runs) {
        const int64_t distance = static_cast<int64_t>(run.lcn) - last;
        const unsigned lengthWidth = widthOf(static_cast<int64_t>(run.length));
        const unsigned lcnWidth = run.is_hole ? 0 : widthOf(distance);
        const size_t at = pairs.size();
        pairs.resize(at + 1 + lengthWidth + lcnWidth);
        pairs[at] = static_cast<uint8_t>(lengthWidth | lcnWidth << 4);
        ntb::put_at(pairs.data(), at + 1, lengthWidth, run.length);
        ntb::put_at(pairs.data(), at + 1 + lengthWidth, lcnWidth, static_cast<uint64_t>(distance));
        last = run.is_hole ? last : static_cast<int64_t>(run.lcn);
    }
    pairs.push_back(0);
    editAttribute(number, type, name, [&](Bytes attribute) {
        const size_t at = ntb::u16_at(attribute.data(), 0x20);
        if (at + pairs.size() > attribute.size()) {
            throw std::runtime_error("the runs do not fit");
        }
        std::memcpy(attribute.data() + at, pairs.data(), pairs.size());
    });
}

void ImageEditor::setBit(uint64_t number, uint32_t type, std::string_view name, uint64_t bit,
                         bool value) {
    editValue(number, type, name, [&](Bytes bytes) {
        uint8_t& byte = bytes[bit / 8];
        const auto mask = static_cast<uint8_t>(1u << bit % 8);
        byte = static_cast<uint8_t>(value ? byte | mask : byte & ~mask);
    });
}

void editImage(const std::filesystem::path& file, const std::function<void(ImageEditor&)>& edit) {
    const std::string raw = readFile(file);
    std::vector<uint8_t> bytes(raw.begin(), raw.end());
    ImageEditor editor(bytes);
    edit(editor);
    writeFile(file, std::string(bytes.begin(), bytes.end()));
}

void markEncrypted(ImageEditor& editor, const std::string& path) {
    constexpr uint32_t kStandardInformation = 0x10;
    constexpr size_t kFileFlagsHigh = 0x21;
    constexpr size_t kAttributeFlagsHigh = 0x0d;
    constexpr uint8_t kEncryptedHigh = 0x40; // the high byte of 0x4000 in both kinds of flags
    const uint64_t record = editor.record(path);
    editor.editValue(record, kStandardInformation, "",
                     [](ImageEditor::Bytes value) { value[kFileFlagsHigh] |= kEncryptedHigh; });
    editor.editAttribute(record, ntb::at_data, "", [](ImageEditor::Bytes attribute) {
        attribute[kAttributeFlagsHigh] |= kEncryptedHigh;
    });
}

} // namespace tavelin::test
