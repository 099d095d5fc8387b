// $Secure: the stream of descriptors, its two indexes, and the ids that files have.
#include "check/private/index_walk.hpp"
#include "check/private/passes.hpp"
#include "check/private/security_descriptor.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::uint64_t kHalf = 256u << 10; // bytes of descriptors, then as many of their copies
constexpr std::size_t kDescriptorEntryHeader = 20; // bytes of an entry before its descriptor
constexpr std::size_t kEntriesMax = 4u << 20;      // a server with ACLs for each user has thousands
constexpr std::uint32_t kFirstId = 0x100;

struct Descriptor {
    std::uint32_t id = 0;
    std::uint32_t hash = 0;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;
    std::uint8_t indexes = 0; ///< that have it: 1 $SII, 2 $SDH

    auto operator<=>(const Descriptor&) const = default;
};

/// Of an entry in $SDS, or of the data in an index entry, which is the same header.
Descriptor parse(std::span<const std::uint8_t> header) {
    return {ntb::u32_at(header.data(), 4), ntb::u32_at(header.data(), 0),
            ntb::u64_at(header.data(), 8), ntb::u32_at(header.data(), 16), 0};
}

class SecurityPass {
  public:
    explicit SecurityPass(Volume& volume) : volume_(volume) {}

    void run() {
        if (!volume_.loadFile(ntb::record_secure, file_)) {
            return; // reported with the system files
        }
        const Attribute* const stream = file_.find(ntb::at_data, "$SDS");
        if (stream == nullptr) {
            return;
        }
        readStream(*stream);
        std::ranges::sort(descriptors_, {}, &Descriptor::id);
        isSorted_ = true;
        // Windows looks a descriptor up by its id in $SII, and by its hash in $SDH when it wants to
        // share one: an entry that is missing in either breaks one of the two.
        compareIndex("$SII", Collation::number, 4, 1);
        compareIndex("$SDH", Collation::securityHash, 8, 2);
        for (const Descriptor& descriptor : descriptors_) {
            if (descriptor.indexes != 3) {
                add(securityIndex, fmt::format("id {:#x} in $SII and $SDH", descriptor.id),
                    descriptor.indexes == 1   ? "not in $SDH"
                    : descriptor.indexes == 2 ? "not in $SII"
                                              : "in neither");
            }
        }
        for (const auto& [id, record] : volume_.securityIds) {
            if (id >= kFirstId && isWhole_ && find(id) == nullptr) {
                volume_.add(securityId, record, "an id of $SDS", fmt::format("{:#x}", id));
            }
        }
    }

  private:
    void add(FindingClass kind, const std::string& expected, const std::string& found) {
        volume_.add(kind, ntb::record_secure, expected, found, "/$Secure");
    }

    Descriptor* find(std::uint32_t id) {
        TAVELIN_ASSERT(isSorted_);
        const auto found = std::ranges::lower_bound(descriptors_, id, {}, &Descriptor::id);
        return found != descriptors_.end() && found->id == id ? &*found : nullptr;
    }

    void readStream(const Attribute& stream) {
        // Windows writes each descriptor twice, 256 KiB apart, and so recovers one of which a write
        // was cut. The first copies are read as the content, the second ones only compared.
        const std::uint64_t size =
            std::min(stream.size(), stream.clusters * volume_.boot.cluster_size);
        std::vector<std::uint8_t> half(std::min(kHalf, size));
        std::vector<std::uint8_t> copy(half.size());
        volume_.expect(size);
        for (std::uint64_t base = 0; base < size && volume_.spend(2 * kHalf); base += 2 * kHalf) {
            if (volume_.read(stream, base, half) != 0 ||
                volume_.read(stream, base + kHalf, copy) != 0) {
                isWhole_ = false;
                add(securityStream, "$SDS", "a read error");
                continue;
            }
            TAVELIN_ASSERT(half.size() == copy.size() && base % (2 * kHalf) == 0);
            readHalf(base, std::min(kHalf, size - base), half, copy);
            volume_.advance(std::min(2 * kHalf, size - base));
        }
    }

    void readHalf(std::uint64_t base, std::uint64_t end, std::span<const std::uint8_t> half,
                  std::span<const std::uint8_t> copy) {
        TAVELIN_ASSERT(end <= half.size() && end <= copy.size());
        for (std::uint64_t at = 0;
             at + kDescriptorEntryHeader <= end && descriptors_.size() < kEntriesMax;) {
            const Descriptor entry = parse(half.subspan(at));
            if (entry.id == 0 && entry.length == 0) {
                return; // the rest of the half is not used
            }
            // An entry says its own offset. Behind one that does not, the next cannot be found: the
            // rest of the half is given up, and no id is called unknown for it.
            if (entry.offset != base + at || entry.length < kDescriptorEntryHeader ||
                entry.length > end - at) {
                isWhole_ = false;
                add(securityStream, fmt::format("an entry of offset {}", base + at),
                    fmt::format("id {:#x}, offset {}, {} bytes", entry.id, entry.offset,
                                entry.length));
                return;
            }
            const auto bytes = half.subspan(at, entry.length);
            const auto descriptor = bytes.subspan(kDescriptorEntryHeader);
            if (securityHash(descriptor) != entry.hash) {
                add(securityStream, fmt::format("hash {:#x}", securityHash(descriptor)),
                    fmt::format("{:#x} at id {:#x}", entry.hash, entry.id));
            } else if (!isSecurityDescriptor(descriptor)) {
                add(securityDescriptor, "a security descriptor",
                    fmt::format("none at id {:#x}", entry.id));
            }
            if (!std::ranges::equal(bytes, copy.subspan(at, entry.length))) {
                add(securityCopy, "the same in both copies", fmt::format("id {:#x}", entry.id));
            }
            descriptors_.push_back(entry);
            at += (std::uint64_t{entry.length} + 15) / 16 * 16; // entries are aligned to 16 bytes
        }
    }

    void compareIndex(std::string_view name, Collation collation, std::size_t keySize,
                      std::uint8_t mark) {
        IndexWalk(volume_, file_, name).run(collation, [&](const IndexEntry& entry) {
            if (entry.key().size() < keySize || entry.data().size() < kDescriptorEntryHeader) {
                add(securityIndex, "a key and a header",
                    fmt::format("{}: {} and {} bytes", name, entry.key().size(),
                                entry.data().size()));
                return;
            }
            Descriptor indexed = parse(entry.data());
            Descriptor* const own = find(indexed.id);
            const bool isKey = keySize == 4 ? ntb::u32_at(entry.key().data(), 0) == indexed.id
                                            : ntb::u32_at(entry.key().data(), 0) == indexed.hash &&
                                                  ntb::u32_at(entry.key().data(), 4) == indexed.id;
            // Compared as a whole, but for which indexes have been seen.
            if (own != nullptr) {
                indexed.indexes = own->indexes;
            }
            if (!isKey || own == nullptr || indexed != *own) {
                add(securityIndex, "the header of a descriptor in $SDS",
                    fmt::format("{}: id {:#x}, offset {}", name, indexed.id, indexed.offset));
                return;
            }
            own->indexes = static_cast<std::uint8_t>(own->indexes | mark);
        });
    }

    Volume& volume_;
    File file_;
    std::vector<Descriptor> descriptors_; ///< by id, once they are read
    bool isWhole_ = true;
    bool isSorted_ = false;
};

} // namespace

void checkSecurity(Volume& volume) {
    volume.beginPhase("security descriptors");
    SecurityPass(volume).run();
}

} // namespace tavelin::check
