// Puts a file together from its base record and the extension records that its attribute list
// names.
#include "check/private/volume.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <compare>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kListBytesMax = 256u << 10;
constexpr std::size_t kRunsMax = 4u << 20;       // of an attribute; 256 KiB of list allow less
constexpr std::uint64_t kListEntryHeader = 0x1a; // bytes
// Each entry of a list may bring in one record, which the file then owns.
static_assert(kListBytesMax / kListEntryHeader < 1u << 14);

std::string nameOf(const ntb::attribute_view& attribute) {
    const std::string name = toText(attribute.name());
    return fmt::format("attribute {:#x}{}{}", attribute.type(), name.empty() ? "" : ":", name);
}

std::uint64_t lowestVcn(const ntb::attribute_view& attribute) {
    return attribute.is_resident() ? 0 : attribute.lowest_vcn();
}

class Assembler {
  public:
    Assembler(Volume& volume, File& file) : volume_(volume), file_(file) {}

    void run() {
        TAVELIN_ASSERT(pieces_.empty() && file_.attributes.empty());
        readAttributes(file_.base, file_.number);
        const auto list = std::ranges::find_if(pieces_, [](const Piece& piece) {
            return piece.view.type() == ntb::at_attribute_list;
        });
        if (list != pieces_.end()) {
            followList(Piece(*list)); // a copy: extension records add to the pieces
        }
        join();
    }

  private:
    struct Piece {
        ntb::attribute_view view;
        std::uint64_t record = 0;
        bool isListed = false;
    };
    struct ListEntry {
        std::uint32_t type = 0;
        std::uint64_t lowestVcn = 0;
        std::uint64_t reference = 0;
        std::uint16_t instance = 0;
        RawName name;
    };

    void add(FindingClass kind, const std::string& expected, const std::string& found) {
        volume_.add(kind, file_.number, expected, found);
    }

    void readAttributes(const ntb::record_view& record, std::uint64_t number) {
        ntb::attribute_reader reader(record);
        const std::size_t begin = pieces_.size();
        for (ntb::attribute_view view;;) {
            const auto result = reader.next(view);
            if (result == ntb::attribute_reader::result::end) {
                break;
            }
            // What was read before it is used. Where the next attribute would begin is not known.
            if (result == ntb::attribute_reader::result::malformed) {
                file_.isWhole = false;
                add(attributeMalformed, "an attribute or the end marker",
                    fmt::format("neither, at byte {} of record {}", reader.position(), number));
                break;
            }
            if (pieces_.size() > begin && pieces_.back().view.type() > view.type()) {
                add(attributeOrder, fmt::format("types ascending in record {}", number),
                    fmt::format("{} after {}", nameOf(view), nameOf(pieces_.back().view)));
            }
            // Instance numbers are per record: attribute lists name an attribute by record and
            // instance.
            const bool isTaken =
                std::any_of(pieces_.begin() + static_cast<std::ptrdiff_t>(begin), pieces_.end(),
                            [&](const Piece& p) { return p.view.instance() == view.instance(); });
            if (isTaken) {
                add(attributeInstance, "an instance number of its own",
                    fmt::format("{} has {} like another one in record {}", nameOf(view),
                                view.instance(), number));
            }
            pieces_.push_back({view, number});
            TAVELIN_ASSERT(pieces_.size() - begin <= ntb::record_size_max / 8);
        }
    }

    // ---- The attribute list --------------------------------------------------------------------

    /// False at the end and for what cannot be read.
    bool parseEntry(std::span<const std::uint8_t>& rest, ListEntry& entry) {
        if (rest.size() < kListEntryHeader) {
            if (!rest.empty()) {
                add(attributeListMalformed, "a whole entry", fmt::format("{} bytes", rest.size()));
            }
            return false;
        }
        const std::uint64_t length = ntb::u16_at(rest.data(), 4);
        const std::uint64_t nameLength = std::uint64_t{2} * rest[6];
        const std::uint64_t nameOffset = rest[7];
        if (length < kListEntryHeader || length > rest.size() ||
            (nameLength != 0 && nameOffset + nameLength > length)) {
            add(attributeListMalformed, "an entry inside the list",
                fmt::format("length {}, name of {} bytes at {}", length, nameLength, nameOffset));
            return false;
        }
        entry.type = ntb::u32_at(rest.data(), 0);
        entry.lowestVcn = ntb::u64_at(rest.data(), 8);
        entry.reference = ntb::u64_at(rest.data(), 0x10);
        entry.instance = ntb::u16_at(rest.data(), 0x18);
        entry.name = rest.subspan(nameLength == 0 ? 0 : nameOffset, nameLength);
        rest = rest.subspan(length);
        TAVELIN_ASSERT(entry.name.size() == nameLength);
        return true;
    }

    void followList(const Piece& list) {
        Attribute attribute;
        attribute.first = list.view;
        if (!list.view.is_resident()) {
            decode(list, attribute);
        }
        const auto bytes = volume_.readAll(attribute, kListBytesMax);
        if (!bytes || bytes->size() < attribute.size()) {
            file_.isWhole = false;
            add(attributeListMalformed, "a list that can be read",
                fmt::format("{} bytes", attribute.size()));
            if (!bytes) {
                return;
            }
        }
        std::span<const std::uint8_t> rest(*bytes);
        std::vector<ListEntry> entries;
        for (ListEntry entry; parseEntry(rest, entry);) {
            // The order of names within a type depends on the upper-case table, which is not read
            // yet: only types and the extents of one attribute are compared.
            const bool isAscending = entries.empty() || entries.back().type < entry.type ||
                                     (entries.back().type == entry.type &&
                                      (!std::ranges::equal(entries.back().name, entry.name) ||
                                       entries.back().lowestVcn <= entry.lowestVcn));
            if (!isAscending) {
                add(attributeListOrder, "types and clusters ascending",
                    fmt::format("attribute {:#x} after {:#x}", entry.type, entries.back().type));
            }
            entries.push_back(entry);
            loadExtension(entry.reference);
        }
        // The extensions are loaded: each attribute in them has to have an entry, and each entry an
        // attribute.
        file_.isWhole = file_.isWhole && rest.empty();
        matchList(entries);
        for (const Piece& piece : pieces_) {
            if (!piece.isListed && piece.view.type() != ntb::at_attribute_list) {
                add(attributeListMissing, "an entry for each attribute",
                    fmt::format("none for {} in record {}", nameOf(piece.view), piece.record));
            }
        }
    }

    void loadExtension(std::uint64_t reference) {
        // A record is read once, however often a hostile list names it.
        const std::uint64_t number = ntb::reference_record(reference);
        if (number == file_.number || !loaded_.emplace(number, true).second) {
            return;
        }
        auto bytes = std::make_unique<std::uint8_t[]>(volume_.boot.record_size);
        const std::span<std::uint8_t> record(bytes.get(), volume_.boot.record_size);
        if (!volume_.spend(record.size()) || !volume_.readRecord(number, record)) {
            file_.isWhole = false;
            add(attributeListStale, "an extension record in use", fmt::format("record {}", number));
            return;
        }
        // Both sides have to agree: the list names the record and the record its base. Otherwise
        // the record is another file's by now.
        const ntb::record_view extension(record);
        if (extension.base() != file_.reference() ||
            extension.sequence() != ntb::reference_sequence(reference)) {
            file_.isWhole = false;
            add(attributeListStale, fmt::format("an extension of record {}", file_.number),
                fmt::format("record {} with base {} and sequence number {}", number,
                            ntb::reference_record(extension.base()), extension.sequence()));
            return;
        }
        // The pass over the records may reach this one later: the state is made, not yet in use.
        TAVELIN_ASSERT(number < volume_.recordCount());
        volume_.table.touch(number).set(RecordState::claimed);
        file_.owned.push_back(std::move(bytes));
        readAttributes(extension, number);
    }

    void matchList(const std::vector<ListEntry>& entries) {
        const auto key = [](std::uint64_t record, std::uint16_t instance) {
            TAVELIN_ASSERT(record >> 48 == 0);
            return record << 16 | instance;
        };
        std::unordered_map<std::uint64_t, Piece*> byInstance;
        for (Piece& piece : pieces_) {
            byInstance.emplace(key(piece.record, piece.view.instance()), &piece);
        }
        for (const ListEntry& entry : entries) {
            const std::uint64_t record = ntb::reference_record(entry.reference);
            const auto found = byInstance.find(key(record, entry.instance));
            const bool isThere = found != byInstance.end() &&
                                 found->second->view.type() == entry.type &&
                                 lowestVcn(found->second->view) == entry.lowestVcn &&
                                 std::ranges::equal(found->second->view.name(), entry.name);
            if (isThere) {
                found->second->isListed = true;
            } else {
                add(attributeListStale,
                    fmt::format("attribute {:#x} from cluster {} with instance {} in record {}",
                                entry.type, entry.lowestVcn, entry.instance, record),
                    "none such");
            }
        }
    }

    // ---- Extents -------------------------------------------------------------------------------

    void decode(const Piece& piece, Attribute& attribute) {
        TAVELIN_ASSERT(!piece.view.is_resident());
        const std::uint64_t clusters = volume_.boot.clusters();
        ntb::mapping_pairs_reader reader(piece.view.mapping_pairs(), piece.view.lowest_vcn());
        ntb::run run;
        auto result = reader.read(run);
        for (; result == ntb::mapping_pairs_reader::result::run; result = reader.read(run)) {
            // Left out, so that no later pass reads or marks what is not on the volume. The runs
            // behind it are relative to it and may be good.
            if (!run.is_hole && (run.length > clusters || run.lcn > clusters - run.length)) {
                attribute.isWhole = false;
                add(runOutside, fmt::format("clusters below {}", clusters),
                    fmt::format("{}: {} clusters from {}", nameOf(piece.view), run.length,
                                run.lcn));
                continue;
            }
            if (attribute.runs.size() == kRunsMax) {
                attribute.isWhole = false;
                volume_.reporter.count(notExamined);
                return;
            }
            // A gap is left where a run was, never an overlap: Volume::read() searches by VCN.
            TAVELIN_ASSERT(attribute.runs.empty() ||
                           attribute.runs.back().vcn + attribute.runs.back().length <= run.vcn);
            attribute.runs.push_back(run);
        }
        attribute.clusters = std::max(attribute.clusters, reader.vcn());
        if (result == ntb::mapping_pairs_reader::result::malformed ||
            reader.vcn() != piece.view.highest_vcn() + 1) {
            attribute.isWhole = false;
            add(runListMalformed,
                fmt::format("runs up to cluster {}",
                            static_cast<std::int64_t>(piece.view.highest_vcn())),
                fmt::format("{}: they end before cluster {}", nameOf(piece.view), reader.vcn()));
        }
    }

    static bool isSame(const ntb::attribute_view& a, const ntb::attribute_view& b) {
        return a.type() == b.type() && std::ranges::equal(a.name(), b.name());
    }

    void addExtent(const Piece& piece) {
        auto& attributes = file_.attributes;
        const bool continues = !attributes.empty() && !attributes.back().isResident() &&
                               isSame(attributes.back().first, piece.view);
        // Extents behind a gap are kept, those that overlap earlier ones are not: the run list has
        // to stay in VCN order.
        if (!continues || attributes.back().clusters != piece.view.lowest_vcn()) {
            file_.isWhole = false;
            add(runOrder,
                fmt::format("an extent from cluster {}",
                            continues ? attributes.back().clusters : 0),
                fmt::format("{}: one from cluster {}", nameOf(piece.view),
                            piece.view.lowest_vcn()));
            if (!continues || attributes.back().clusters > piece.view.lowest_vcn()) {
                return;
            }
            attributes.back().isWhole = false;
        }
        decode(piece, attributes.back());
    }

    void join() {
        // Extents of one attribute become neighbours, the first one in front. The order is stable,
        // so that of attributes that occur twice the one in the base record comes first.
        std::ranges::stable_sort(pieces_, [](const Piece& a, const Piece& b) {
            if (a.view.type() != b.view.type()) {
                return a.view.type() < b.view.type();
            }
            const auto order =
                std::lexicographical_compare_three_way(a.view.name().begin(), a.view.name().end(),
                                                       b.view.name().begin(), b.view.name().end());
            return std::is_neq(order) ? std::is_lt(order) : lowestVcn(a.view) < lowestVcn(b.view);
        });
        for (const Piece& piece : pieces_) {
            if (lowestVcn(piece.view) != 0) {
                addExtent(piece);
                continue;
            }
            // A file may have many $FILE_NAME attributes: one for each link, all without a name.
            const bool isTwice = !file_.attributes.empty() &&
                                 piece.view.type() != ntb::at_file_name &&
                                 isSame(file_.attributes.back().first, piece.view);
            if (isTwice) {
                add(attributeTwice, "one attribute of a type and name",
                    fmt::format("{} again in record {}", nameOf(piece.view), piece.record));
            }
            Attribute& attribute = file_.attributes.emplace_back();
            attribute.first = piece.view;
            attribute.record = piece.record;
            if (!piece.view.is_resident()) {
                decode(piece, attribute);
            }
        }
    }

    Volume& volume_;
    File& file_;
    std::vector<Piece> pieces_;
    std::unordered_map<std::uint64_t, bool> loaded_;
};

} // namespace

void Volume::assemble(std::uint64_t number, std::span<const std::uint8_t> base, File& file) {
    file.number = number;
    file.base = ntb::record_view(base);
    Assembler(*this, file).run();
}

} // namespace tavelin::check
