#include "check/record_reader.hpp"

#include "check/check.hpp"
#include "check/private/volume.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tavelin::check {

/// The volume as the check sees it, whose findings nobody wants here.
struct RecordReader::State {
    explicit State(BlockDevice& device) : volume(device, options, report), mute(volume.reporter) {}

    Options options;
    Report report;
    Volume volume;
    Reporter::Mute mute;
    /// What record() has read last.
    std::vector<std::uint8_t> bytes;
    File file;
};

namespace {

std::timespec modifiedTime(const File& file) {
    constexpr std::size_t kModifiedOffset = 8;
    constexpr std::int64_t kUnitsOfSecond = 10'000'000;     // of 100 ns
    constexpr std::int64_t kSecondsTo1970 = 11'644'473'600; // from 1601
    const Attribute* const information = file.find(ntb::at_standard_information);
    if (information == nullptr || !information->isResident() ||
        information->first.value().size() < kModifiedOffset + sizeof(std::uint64_t)) {
        return {};
    }
    const auto units = static_cast<std::int64_t>(
        ntb::u64_at(information->first.value().data(), kModifiedOffset) & INT64_MAX);
    return {.tv_sec = units / kUnitsOfSecond - kSecondsTo1970,
            .tv_nsec = units % kUnitsOfSecond * 100};
}

} // namespace

const RecordExtents* FileRecord::content() const noexcept {
    const auto found = std::find_if(attributes.begin(), attributes.end(), [](const auto& one) {
        return one.type == ntb::at_data && one.name.empty();
    });
    return found == attributes.end() ? nullptr : &*found;
}

const RecordName* FileRecord::name() const noexcept {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [](const RecordName& name) { return !name.isShort; });
    return found == names.end() ? nullptr : &*found;
}

std::unique_ptr<RecordReader> RecordReader::open(BlockDevice& device, std::string& whyNot) {
    auto state = std::make_unique<State>(device);
    try {
        state->volume.open();
    } catch (const Unreadable& unreadable) {
        whyNot = unreadable.reason;
        return nullptr;
    }
    return std::unique_ptr<RecordReader>(new RecordReader(std::move(state)));
}

RecordReader::RecordReader(std::unique_ptr<State> state) : state_(std::move(state)) {}
RecordReader::~RecordReader() = default;

std::uint64_t RecordReader::recordCount() const noexcept {
    return state_->volume.recordCount();
}

std::uint64_t RecordReader::clusterSize() const noexcept {
    return state_->volume.boot.cluster_size;
}

std::uint64_t RecordReader::clusters() const noexcept {
    return state_->volume.boot.clusters();
}

std::optional<FileRecord> RecordReader::record(std::uint64_t number) {
    Volume& volume = state_->volume;
    state_->file = File();
    state_->bytes.assign(volume.boot.record_size, 0);
    if (number >= volume.recordCount() || volume.readRawRecords(number, state_->bytes) != 0) {
        return std::nullopt;
    }
    const ntb::record_view view(state_->bytes);
    if (!view.has_magic() || ntb::apply_fixups(state_->bytes) != ntb::fixup_result::good ||
        view.base() != 0) {
        return std::nullopt;
    }
    volume.assemble(number, state_->bytes, state_->file);
    const File& file = state_->file;
    FileRecord result{.number = number,
                      .sequence = view.sequence(),
                      .isInUse = view.in_use(),
                      .isDirectory = (view.flags() & ntb::record_is_directory) != 0,
                      .isWhole = file.isWhole,
                      .modified = modifiedTime(file),
                      .names = {},
                      .attributes = {}};
    for (const Attribute& attribute : file.attributes) {
        FileName name;
        if (attribute.type() == ntb::at_file_name && attribute.isResident() &&
            parseFileName(attribute.first.value(), name)) {
            result.names.push_back({toText(name.name()), ntb::reference_record(name.parent()),
                                    ntb::reference_sequence(name.parent()),
                                    name.nameSpace() == ntb::namespace_dos});
        }
        const bool isPlain = !attribute.first.is_compressed() &&
                             (attribute.first.flags() & ntb::attribute_encrypted) == 0;
        result.attributes.push_back({.type = attribute.type(),
                                     .name = toText(attribute.first.name()),
                                     .size = attribute.size(),
                                     .isResident = attribute.isResident(),
                                     .isPlain = isPlain,
                                     .isWhole = attribute.isWhole,
                                     .runs = attribute.runs});
    }
    return result;
}

std::int32_t RecordReader::readContent(std::uint64_t offset, std::span<std::uint8_t> into) {
    const Attribute* const content = state_->file.find(ntb::at_data);
    return content == nullptr ? ENOENT : state_->volume.read(*content, offset, into);
}

std::optional<std::vector<std::uint8_t>> RecordReader::bitmap() {
    File file;
    const Attribute* bits = nullptr;
    if (state_->volume.loadFile(ntb::record_bitmap, file)) {
        bits = file.find(ntb::at_data);
    }
    constexpr std::uint64_t kBitsOfByte = 8;
    const std::uint64_t bytes = (clusters() + kBitsOfByte - 1) / kBitsOfByte;
    auto read = bits == nullptr ? std::nullopt : state_->volume.readAll(*bits, bytes);
    return read && read->size() == bytes ? std::move(read) : std::nullopt;
}

std::string RecordReader::pathOf(std::uint64_t number) {
    return state_->volume.pathOf(number);
}

} // namespace tavelin::check
