#include "check/private/index_walk.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <compare>
#include <cstring>
#include <utility>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::size_t kRootHeader = 0x10;  // bytes before the index header
constexpr std::size_t kBlockHeader = 0x18; // the same in an index block
constexpr std::size_t kIndexHeader = 0x10; // bytes
constexpr std::size_t kEntryHeader = 0x10; // bytes
constexpr std::uint16_t kHasChild = 1;
constexpr std::uint16_t kIsLast = 2;
constexpr std::size_t kDepthMax = 32; // blocks; a tree of 10^9 names has fewer than ten

int sign(std::strong_ordering order) noexcept {
    return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
}

int compareNames(RawName a, RawName b, const std::vector<std::uint16_t>& upcase) noexcept {
    TAVELIN_ASSERT(upcase.size() == 65536 && a.size() % 2 == 0 && b.size() % 2 == 0);
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; i += 2) {
        const std::uint16_t left = upcase[ntb::u16_at(a.data(), i)];
        const std::uint16_t right = upcase[ntb::u16_at(b.data(), i)];
        if (left != right) {
            return sign(left <=> right);
        }
    }
    if (a.size() != b.size()) {
        return sign(a.size() <=> b.size());
    }
    // Names that differ in their case only are different names, as in directories that are case
    // sensitive, and are sorted by their units.
    for (std::size_t i = 0; i < common; i += 2) {
        const int order = sign(ntb::u16_at(a.data(), i) <=> ntb::u16_at(b.data(), i));
        if (order != 0) {
            return order;
        }
    }
    return 0;
}

int compareNumbers(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) noexcept {
    for (std::size_t i = 0; i + 4 <= std::min(a.size(), b.size()); i += 4) {
        const int order = sign(ntb::u32_at(a.data(), i) <=> ntb::u32_at(b.data(), i));
        if (order != 0) {
            return order;
        }
    }
    return sign(a.size() <=> b.size());
}

} // namespace

std::span<const std::uint8_t> IndexEntry::data() const noexcept {
    const std::size_t offset = ntb::u16_at(bytes.data(), 0);
    const std::size_t length = ntb::u16_at(bytes.data(), 2);
    return offset + length <= bytes.size() ? bytes.subspan(offset, length)
                                           : std::span<const std::uint8_t>{};
}

int compareKeys(Collation collation, std::span<const std::uint8_t> a,
                std::span<const std::uint8_t> b,
                const std::vector<std::uint16_t>& upcase) noexcept {
    switch (collation) {
    case Collation::fileName: {
        FileName left;
        FileName right;
        return parseFileName(a, left) && parseFileName(b, right)
                   ? compareNames(left.name(), right.name(), upcase)
                   : 0;
    }
    case Collation::number:
    case Collation::securityHash:
    case Collation::numbers:
        return compareNumbers(a, b);
    case Collation::binary:
        break;
    }
    return sign(std::lexicographical_compare_three_way(a.begin(), a.end(), b.begin(), b.end()));
}

void IndexWalk::add(FindingClass kind, const std::string& expected, const std::string& found) {
    volume_.add(kind, file_.number, expected, fmt::format("{}: {}", name_, found));
}

// ---- Blocks ------------------------------------------------------------------------------------

bool IndexWalk::openRoot() {
    const Attribute* const root = file_.find(ntb::at_index_root, name_);
    if (root == nullptr || !root->isResident() ||
        root->size() < kRootHeader + kIndexHeader + kEntryHeader) {
        add(indexRoot, "a root in the file record", root == nullptr ? "none" : "one that is none");
        return false;
    }
    // The size of a block is the index's own. It need not be the boot sector's, which is only what
    // new indexes get.
    const auto value = root->first.value();
    blockSize_ = ntb::u32_at(value.data(), 8);
    const std::uint32_t rule = ntb::u32_at(value.data(), 4);
    if (rule != static_cast<std::uint32_t>(collation_) || !std::has_single_bit(blockSize_) ||
        blockSize_ < ntb::protected_bytes || blockSize_ > ntb::index_block_size_max) {
        add(indexRoot, fmt::format("collation rule {:#x}", static_cast<std::uint32_t>(collation_)),
            fmt::format("rule {:#x}, index blocks of {} bytes", rule, blockSize_));
        return false;
    }
    openAllocation();
    return enter({value.begin(), value.end()}, kRootHeader, indexRoot);
}

void IndexWalk::openAllocation() {
    allocation_ = file_.find(ntb::at_index_allocation, name_);
    if (allocation_ == nullptr || allocation_->isResident()) {
        allocation_ = nullptr;
        return;
    }
    // What is said of the size, what the run lists cover, and what the volume has room for: the
    // least of the three bounds what is allocated here and what is walked.
    TAVELIN_ASSERT(std::has_single_bit(blockSize_));
    const std::uint64_t cluster = volume_.boot.cluster_size;
    blocks_ = std::min({allocation_->size(), allocation_->clusters * cluster,
                        volume_.boot.clusters() * cluster}) /
              blockSize_;
    if (!volume_.spend(blocks_ / 8)) {
        blocks_ = 0;
    }
    visited_.assign(blocks_, false);
    // The bitmap grows by 8 bytes at a time, so it is longer than needed as a rule.
    const Attribute* const bitmap = file_.find(ntb::at_bitmap, name_);
    const auto bytes = bitmap == nullptr ? std::nullopt : volume_.readAll(*bitmap, blocks_ / 8 + 8);
    if (bytes && bytes->size() >= (blocks_ + 7) / 8) {
        bitmap_ = *bytes;
    } else {
        add(bitmapSize, fmt::format("a bitmap of {} bits", blocks_),
            bytes ? fmt::format("{} bytes", bytes->size()) : "none");
        bitmap_.clear();
    }
}

/// Begins with the entries of a root or block.
bool IndexWalk::enter(std::vector<std::uint8_t> bytes, std::size_t header, FindingClass fault) {
    TAVELIN_ASSERT(bytes.size() >= header + kIndexHeader && frames_.size() < kDepthMax);
    const std::size_t room = bytes.size() - header;
    const std::uint64_t begin = ntb::u32_at(bytes.data(), header);
    const std::uint64_t end = ntb::u32_at(bytes.data(), header + 4);
    const std::uint64_t allocated = ntb::u32_at(bytes.data(), header + 8);
    // A root may be smaller than its attribute's value; a block always fills its bytes.
    if (begin < kIndexHeader || begin % 8 != 0 || end > allocated || allocated > room ||
        begin > end || (fault == indexBlock && allocated != room)) {
        isWhole_ = false;
        add(fault, fmt::format("entries inside {} bytes", room),
            fmt::format("entries from {} to {} of {}", begin, end, allocated));
        return false;
    }
    frames_.push_back({std::move(bytes), header + begin, header + end, false});
    return true;
}

bool IndexWalk::readBlock(std::uint64_t index, std::uint64_t vcn,
                          std::vector<std::uint8_t>& bytes) {
    TAVELIN_ASSERT(allocation_ != nullptr && index < blocks_);
    bytes.resize(blockSize_);
    volume_.advance(blockSize_);
    if (volume_.read(*allocation_, index * blockSize_, bytes) != 0) {
        add(indexBlockUnreadable, "an index block", fmt::format("a read error at block {}", index));
        return false;
    }
    const bool hasMagic = std::memcmp(bytes.data(), "INDX", 4) == 0;
    const ntb::fixup_result fixups =
        hasMagic ? ntb::apply_fixups(bytes) : ntb::fixup_result::malformed;
    if (fixups == ntb::fixup_result::malformed) {
        add(indexBlock, fmt::format("an index block at {}", index),
            hasMagic ? "one without an update sequence" : "none");
        return false;
    }
    // The entries of a torn block are walked all the same: most of them are still right.
    if (fixups == ntb::fixup_result::mismatch) {
        add(indexBlockTorn, "sectors of one write", fmt::format("sectors of two at {}", index));
    }
    // A block of another index, or of this one's past, has sound fixups too. Its own number shows
    // it.
    const std::uint64_t own = ntb::u64_at(bytes.data(), 0x10);
    if (own != vcn) {
        add(indexBlock, fmt::format("block {}", vcn), fmt::format("one that says it is {}", own));
        return false;
    }
    return true;
}

void IndexWalk::descend(std::uint64_t vcn) {
    // Blocks smaller than a cluster are counted in 512 bytes.
    const std::uint64_t unit =
        volume_.boot.cluster_size <= blockSize_ ? volume_.boot.cluster_size : ntb::protected_bytes;
    const std::uint64_t perBlock = blockSize_ / unit;
    TAVELIN_ASSERT(perBlock > 0);
    const std::uint64_t index = vcn / perBlock;
    // Each way out below before the last line loses a subtree.
    const bool wasWhole = std::exchange(isWhole_, false);
    if (vcn % perBlock != 0 || index >= blocks_ || frames_.size() >= kDepthMax) {
        add(indexChild, fmt::format("a block below {}", blocks_ * perBlock),
            fmt::format("block {}", vcn));
        return;
    }
    // Each block is walked once, so that a tree that leads back into itself ends.
    TAVELIN_ASSERT(visited_.size() == blocks_);
    if (visited_[index]) {
        add(indexBlockTwice, "each block once", fmt::format("block {} again", vcn));
        return;
    }
    visited_[index] = true;
    if (!bitmap_.empty() && (bitmap_[index / 8] >> index % 8 & 1) == 0) {
        add(indexBlockMarkedFree, "marked used", fmt::format("block {} is marked free", vcn));
    }
    std::vector<std::uint8_t> bytes;
    if (!volume_.spend(blockSize_) || !readBlock(index, vcn, bytes)) {
        return;
    }
    isWhole_ = wasWhole;
    static_cast<void>(enter(std::move(bytes), kBlockHeader, indexBlock));
}

// ---- Entries -----------------------------------------------------------------------------------

bool IndexWalk::isSound(const IndexEntry& entry, std::size_t room) const {
    TAVELIN_ASSERT(entry.bytes.size() == room);
    if (room < kEntryHeader) {
        return false;
    }
    // The last entry has no key, and what stands in the key's length then means nothing. The VCN of
    // a child is in the last 8 bytes of an entry.
    const std::size_t length = ntb::u16_at(entry.bytes.data(), 8);
    const std::uint16_t flags = ntb::u16_at(entry.bytes.data(), 0x0c);
    const std::size_t child = (flags & kHasChild) != 0 ? 8 : 0;
    const std::size_t key = (flags & kIsLast) != 0 ? 0 : ntb::u16_at(entry.bytes.data(), 0x0a);
    return length % 8 == 0 && length <= room && kEntryHeader + key + child <= length;
}

bool IndexWalk::visitKey(const IndexEntry& entry, const Visit& visit) {
    FileName name;
    if (collation_ == Collation::fileName && !parseFileName(entry.key(), name)) {
        return false;
    }
    // The key before may be in another block: the order holds over the whole tree.
    if (!lastKey_.empty() && compareKeys(collation_, lastKey_, entry.key(), volume_.upcase) >= 0) {
        add(indexOrder, "keys ascending",
            collation_ == Collation::fileName
                ? fmt::format("\"{}\" out of its place", toText(name.name()))
                : "one out of its place");
    }
    lastKey_.assign(entry.key().begin(), entry.key().end());
    visit(entry);
    return true;
}

bool IndexWalk::step(const Visit& visit) {
    TAVELIN_ASSERT(!frames_.empty() && frames_.back().at <= frames_.back().end &&
                   frames_.back().end <= frames_.back().bytes.size());
    Frame& frame = frames_.back();
    const std::size_t room = frame.end - frame.at;
    IndexEntry entry{std::span<const std::uint8_t>(frame.bytes).subspan(frame.at, room)};
    if (!isSound(entry, room)) {
        isWhole_ = false;
        add(indexEntry, "an entry, or the last one",
            fmt::format("neither, {} bytes before the end", room));
        return false;
    }
    const std::size_t length = ntb::u16_at(entry.bytes.data(), 8);
    entry.bytes = entry.bytes.first(length);
    const std::uint16_t flags = ntb::u16_at(entry.bytes.data(), 0x0c);
    // The keys below an entry's child sort before its own key, so the child comes first. The entry
    // is met again when the child's frame is done.
    if ((flags & kHasChild) != 0 && !std::exchange(frame.hasDescended, true)) {
        descend(ntb::u64_at(entry.bytes.data(), length - 8)); // may move the frames
        return true;
    }
    if ((flags & kIsLast) != 0) {
        return false;
    }
    if (!visitKey(entry, visit)) {
        isWhole_ = false;
        add(indexEntry, "a file name", fmt::format("a key of {} bytes", entry.key().size()));
    }
    TAVELIN_ASSERT(length >= kEntryHeader); // every entry advances
    frame.at += length;
    frame.hasDescended = false;
    return true;
}

void IndexWalk::compareBitmap() {
    // Where a part of the tree was lost, its blocks were not visited and may well be in use.
    for (std::uint64_t index = 0; isWhole_ && !bitmap_.empty() && index < blocks_; ++index) {
        if ((bitmap_[index / 8] >> index % 8 & 1) != 0 && !visited_[index]) {
            add(indexBlockMarkedUsed, "marked free",
                fmt::format("block number {} is marked used", index));
        }
    }
}

void IndexWalk::run(Collation collation, const Visit& visit) {
    collation_ = collation;
    if (!openRoot()) {
        return;
    }
    // A stack of frames instead of recursion: its depth is the volume's choice. A step that answers
    // false has not descended, so the last frame is the one that is done.
    while (!frames_.empty()) {
        const std::size_t depth = frames_.size();
        if (!step(visit)) {
            TAVELIN_ASSERT(frames_.size() == depth);
            frames_.resize(depth - 1);
        }
    }
    compareBitmap();
}

} // namespace tavelin::check
