// What a file has to have, and what the values of its attributes have to be.
#include "check/private/passes.hpp"
#include "check/private/security_descriptor.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kInformationSize = 0x30;      // bytes
constexpr std::uint64_t kInformationWithOwner = 0x48; // the same since Windows 2000
constexpr std::uint64_t kObjectIdSize = 16;           // bytes
constexpr std::uint64_t kReparseHeader = 8;           // bytes
constexpr std::uint64_t kReparseBytesMax = 16u << 10;
constexpr std::uint64_t kExtendedBytesMax = 64u << 10;
constexpr std::uint32_t kLastKnownType = ntb::at_logged_utility_stream;

class FileCheck {
  public:
    FileCheck(Volume& volume, const File& file, RecordState& state)
        : volume_(volume), file_(file), state_(state) {}

    void run() {
        checkInformation();
        checkNames();
        checkDirectory();
        for (const Attribute& attribute : file_.attributes) {
            checkValue(attribute);
        }
        const bool isPlain =
            !state_.has(RecordState::directory) && !state_.has(RecordState::viewIndex);
        if (isPlain && file_.isWhole && file_.find(ntb::at_data) == nullptr && isUserFile()) {
            add(attributeMissing, "$DATA", "none");
        }
    }

  private:
    void add(FindingClass kind, const std::string& expected, const std::string& found) {
        volume_.add(kind, file_.number, expected, found);
    }

    [[nodiscard]] bool isUserFile() const { return file_.number >= ntb::first_user_record; }

    /// Files of a volume before Windows 2000 have the shorter form, without a security id.
    void checkInformation() {
        static_assert(kInformationSize < kInformationWithOwner);
        const Attribute* const found = file_.find(ntb::at_standard_information);
        if (found == nullptr) {
            if (file_.isWhole) {
                add(attributeMissing, "$STANDARD_INFORMATION", "none");
            }
            return;
        }
        if (!found->isResident() || found->size() < kInformationSize) {
            add(attributeValue, fmt::format("$STANDARD_INFORMATION of {} bytes", kInformationSize),
                std::to_string(found->size()));
            return;
        }
        const std::uint8_t* const value = found->first.value().data();
        state_.fileAttributes = ntb::u32_at(value, 0x20);
        if (found->size() >= kInformationWithOwner) {
            // 0 is a file that has its own $SECURITY_DESCRIPTOR. One file of each id is remembered,
            // to name in a finding; the files of an id may be all of the volume's.
            const std::uint32_t id = ntb::u32_at(value, 0x34);
            if (id != 0) {
                volume_.securityIds.emplace(id, static_cast<std::uint32_t>(file_.number));
            }
        }
    }

    // ---- Names ---------------------------------------------------------------------------------

    void checkNames() {
        std::vector<FileName> names;
        std::uint64_t count = 0;
        for (const Attribute& attribute : file_.attributes) {
            if (attribute.type() != ntb::at_file_name) {
                continue;
            }
            ++count;
            FileName name;
            if (attribute.isResident() && parseFileName(attribute.first.value(), name)) {
                state_.names += name.hash(name.parent());
                names.push_back(name);
            } else {
                add(fileName, "a file name",
                    fmt::format("{} bytes that are none", attribute.size()));
                state_.set(RecordState::damaged);
            }
        }
        // A short name counts as a link of its own. Where an extension record could not be read, a
        // name may be in it, and nothing is said of their number.
        if (file_.isWhole && count != file_.base.links()) {
            add(linkCount, std::to_string(count), std::to_string(file_.base.links()));
        }
        const bool isReserved =
            file_.number >= ntb::first_reserved_record && file_.number < ntb::first_user_record;
        if (names.empty()) {
            if (file_.isWhole && count == 0 && !isReserved) {
                add(nameMissing, "a name", "none");
            }
            return;
        }
        // Directories have one name, or a long and a short one in the same directory: the first
        // leads to the root as well as any.
        state_.parent = static_cast<std::uint32_t>(ntb::reference_record(names.front().parent()));
        checkShortNames(names);
        rememberSizes(names);
    }

    void checkShortNames(const std::vector<FileName>& names) {
        for (const FileName& name : names) {
            const bool hasLongName = name.nameSpace() != ntb::namespace_dos ||
                                     std::ranges::any_of(names, [&](const FileName& other) {
                                         return other.nameSpace() == ntb::namespace_win32 &&
                                                other.parent() == name.parent();
                                     });
            if (!hasLongName) {
                add(dosNameAlone, "a long name in the same directory", toText(name.name()));
            }
        }
    }

    /// Of files with one name only: of others only the name that was opened last is up to date.
    void rememberSizes(const std::vector<FileName>& names) {
        TAVELIN_ASSERT(!names.empty());
        const auto isLong = [](const FileName& n) { return n.nameSpace() != ntb::namespace_dos; };
        const Attribute* const data = file_.find(ntb::at_data);
        // Entries of system files keep the sizes that they were made with, as in $Extend.
        const std::uint64_t directory = ntb::reference_record(names.front().parent());
        const bool isInUserDirectory =
            directory == ntb::record_root || directory >= ntb::first_user_record;
        if (data == nullptr || !isUserFile() || !isInUserDirectory ||
            std::ranges::count_if(names, isLong) != 1) {
            return;
        }
        state_.set(RecordState::comparesSizes);
        state_.sizes = sizesHash(allocatedBytes(*data), data->size());
    }

    // ---- Values --------------------------------------------------------------------------------

    void checkDirectory() {
        const bool hasIndex = file_.find(ntb::at_index_root, "$I30") != nullptr;
        const std::uint16_t flags = file_.base.flags();
        if (((flags & ntb::record_is_directory) != 0) != hasIndex && file_.isWhole) {
            add(directoryFlag, hasIndex ? "set, as there is $I30" : "not set, as there is no $I30",
                hasIndex ? "not set" : "set");
        }
        // What has an index is walked as a directory, whatever its flag says: its entries count.
        if (hasIndex) {
            state_.set(RecordState::directory);
            ++volume_.report.directories;
            const Attribute* const blocks = file_.find(ntb::at_index_allocation, "$I30");
            volume_.expect(blocks == nullptr ? 0 : blocks->clusters * volume_.boot.cluster_size);
        } else if (isUserFile()) {
            ++volume_.report.files;
        }
        if ((flags & ntb::record_is_view_index) != 0) {
            state_.set(RecordState::viewIndex);
        }
    }

    void checkValue(const Attribute& attribute) {
        switch (attribute.type()) {
        case ntb::at_security_descriptor: {
            const auto value = volume_.readAll(attribute, kExtendedBytesMax);
            if (value && !isSecurityDescriptor(*value)) {
                add(securityDescriptor, "a security descriptor",
                    fmt::format("{} bytes that are none", value->size()));
            }
            break;
        }
        case ntb::at_reparse_point:
            checkReparsePoint(attribute);
            break;
        case ntb::at_object_id:
            if (!attribute.isResident() || attribute.size() < kObjectIdSize) {
                add(attributeValue, fmt::format("an object id of {} bytes", kObjectIdSize),
                    std::to_string(attribute.size()));
            } else {
                state_.set(RecordState::hasObjectId);
            }
            break;
        case ntb::at_ea:
            checkExtendedAttributes(attribute);
            break;
        default:
            // Types behind the last one may be defined by programs.
            if (attribute.type() % 0x10 != 0 || attribute.type() == 0 || attribute.type() == 0xf0 ||
                attribute.type() > kLastKnownType) {
                add(attributeType, "a type of $AttrDef", fmt::format("{:#x}", attribute.type()));
            }
        }
    }

    void checkReparsePoint(const Attribute& attribute) {
        const auto value = volume_.readAll(attribute, kReparseBytesMax + 1);
        if (!value) {
            return; // reported as what it is: a device that cannot be read
        }
        if (value->size() < kReparseHeader || value->size() > kReparseBytesMax ||
            ntb::u16_at(value->data(), 4) > value->size() - kReparseHeader) {
            add(attributeValue, "reparse data of the length that it says",
                fmt::format("{} bytes", value->size()));
        }
        // $Reparse has an entry for it, malformed or not.
        state_.set(RecordState::hasReparsePoint);
    }

    void checkExtendedAttributes(const Attribute& attribute) {
        const auto value = volume_.readAll(attribute, kExtendedBytesMax);
        if (!value || attribute.size() > kExtendedBytesMax) {
            return;
        }
        // u32 offset of the next one, u8 flags, u8 length of the name, u16 of the value, name, 0.
        std::span<const std::uint8_t> rest(*value);
        while (!rest.empty()) {
            // An offset of 0 marks the last entry, which has all that is left.
            const std::uint64_t next = rest.size() < 8 ? 0 : ntb::u32_at(rest.data(), 0);
            const std::uint64_t step = next == 0 ? rest.size() : next;
            if (rest.size() < 8 || step > rest.size() || step < 9 ||
                9u + rest[5] + ntb::u16_at(rest.data(), 6) > step) {
                add(extendedAttributes, "entries inside the attribute",
                    fmt::format("{} of {} bytes are left at a malformed one", rest.size(),
                                value->size()));
                return;
            }
            TAVELIN_ASSERT(step > 0 && step <= rest.size()); // every turn advances
            rest = rest.subspan(step);
        }
    }

    Volume& volume_;
    const File& file_;
    RecordState& state_;
};

} // namespace

std::uint64_t allocatedBytes(const Attribute& data) {
    // A resident value has no clusters. Index entries have its size rounded up to the 8 bytes that
    // attributes are aligned to.
    if (data.isResident()) {
        return (data.size() + 7) / 8 * 8;
    }
    return data.first.has_total_allocated() ? data.first.total_allocated()
                                            : data.first.allocated_size();
}

std::uint32_t sizesHash(std::uint64_t allocated, std::uint64_t size) {
    const std::uint64_t hash = (allocated * 0x9e3779b97f4a7c15 ^ size) * 0xff51afd7ed558ccd;
    return static_cast<std::uint32_t>(hash >> 32);
}

void checkFile(Volume& volume, const File& file, RecordState& state) {
    FileCheck(volume, file, state).run();
}

} // namespace tavelin::check
