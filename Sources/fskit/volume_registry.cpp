// One item for each file, and how often the host was handed it.
#include "fskit/private/request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"
#include "platform/utf8.hpp"

#include <typeinfo>
#include <utility>

namespace tavelin {

NItem& TavelinVolume::n(const fskit::FSItemRef& item) {
    if (item == nullptr) {
        throw MissingItem();
    }
    // As exact as a dynamic_cast, for a class that nothing derives from, and much cheaper.
    if (fskit::FSItem& given = *item; typeid(given) == typeid(NItem)) {
        return static_cast<NItem&>(given);
    }
    fatal("an item of another file system was passed to a request");
}

void TavelinVolume::requireChangeable() const {
    if (refusesChanges_) {
        throw NTFSError(kEROFS);
    }
}

std::string_view TavelinVolume::name(const fskit::FSFileName& name) {
    const std::string& bytes = name.data();
    // Windows makes names with unpaired surrogates, and nothing but such a name removes the file.
    if (bytes.empty() || !(name.string() || isUTF8OrSurrogates(bytes))) {
        throw NTFSError(kEINVAL);
    }
    return bytes;
}

const std::shared_ptr<NItem>& TavelinVolume::itemLocked(std::uint64_t reference,
                                                        std::uint64_t parent) {
    if (recordNumber(reference) == NTFSVolume::kRootIno) {
        reference = NTFSVolume::kRootIno; // nobody can remove it, so there is nothing to tell apart
    }
    std::shared_ptr<NItem>& entry = registry_[recordNumber(reference)];
    // The item of an earlier file in the same record makes room: whoever still holds it gets ESTALE
    // for every request, so nobody will look for it here.
    if (!entry || entry->reference != reference) {
        entry = std::make_shared<NItem>(reference, parent);
    }
    return entry;
}

std::shared_ptr<NItem> TavelinVolume::item(std::uint64_t reference, std::uint64_t parent) {
    const MutexLock held(items);
    const std::shared_ptr<NItem>& found = itemLocked(reference, parent);
    found->parent.store(parent, std::memory_order_relaxed);
    return found;
}

std::shared_ptr<NItem> TavelinVolume::registered(const fskit::FSItemRef& answered) {
    const NItem& own = n(answered);
    const MutexLock held(items);
    return itemLocked(own.reference, own.parent.load(std::memory_order_relaxed));
}

std::shared_ptr<NItem> TavelinVolume::handOut(std::uint64_t reference, std::uint64_t parent,
                                              std::uint64_t moves) {
    const MutexLock held(items);
    const std::shared_ptr<NItem>& found = itemLocked(reference, parent);
    // A rename between the two may have moved the file away again, and has said so in the item.
    if (moves == moves_) {
        found->parent.store(parent, std::memory_order_relaxed);
    }
    found->handedOut.fetch_add(1, std::memory_order_relaxed);
    return found;
}

std::shared_ptr<NItem> TavelinVolume::root() {
    const MutexLock held(items);
    if (!root_) {
        root_ = itemLocked(NTFSVolume::kRootIno, NTFSVolume::kRootIno);
    }
    return root_;
}

std::uint64_t TavelinVolume::parentOf(std::uint64_t reference, std::uint64_t directory) const {
    const MutexLock held(items);
    const auto entry = registry_.find(recordNumber(reference));
    const bool isRegistered = entry != registry_.end() && entry->second->reference == reference;
    return isRegistered ? entry->second->parent.load(std::memory_order_relaxed) : directory;
}

void TavelinVolume::noteMoved(NItem& item, const NItem& directory) {
    item.parent.store(directory.ino, std::memory_order_relaxed);
    moves_.fetch_add(1);
    movedSince_ = listings_.lastVerifier();
}

std::shared_ptr<NItem> TavelinVolume::takeOut(const NItem& item) {
    const auto entry = registry_.find(item.ino);
    if (entry == registry_.end() || entry->second.get() != &item ||
        item.ino == NTFSVolume::kRootIno) {
        return nullptr;
    }
    return std::move(registry_.extract(entry).mapped());
}

void TavelinVolume::reclaimItem(const fskit::FSItemRef& item) {
    countRequest<"reclaimItem">();
    if (item != nullptr) {
        std::shared_ptr<NItem> dropped; // freed after the lock is released
        KeptListings::Listings abandoned;
        const MutexLock held(items);
        dropped = takeOut(n(item));
        if (dropped != nullptr) {
            abandoned = listings_.takeOut(n(item).reference);
        }
    }
}

void TavelinVolume::retain(const fskit::FSItemRef& item) noexcept {
    // The caller holds a hand-out, so the count is not 0 and cannot become 0 meanwhile.
    n(item).handedOut.fetch_add(1, std::memory_order_relaxed);
}

void TavelinVolume::release(const fskit::FSItemRef& item) noexcept {
    NItem& own = n(item);
    // All but the last hand-out go without the lock. Only the change to 0 must exclude a lookup
    // that hands the item out once more.
    std::uint32_t count = own.handedOut.load(std::memory_order_relaxed);
    while (count > 1) {
        if (own.handedOut.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel)) {
            return;
        }
    }
    std::shared_ptr<NItem> dropped; // freed after the lock is released
    KeptListings::Listings abandoned;
    const MutexLock held(items);
    if (own.handedOut.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        dropped = takeOut(own);
        if (dropped != nullptr) {
            abandoned = listings_.takeOut(own.reference);
            countRequest<"reclaimItem">();
        }
    }
}

void TavelinVolume::reclaimAll() {
    std::unordered_map<std::uint64_t, std::shared_ptr<NItem>> dropped; // freed after the lock
    KeptListings::Listings abandoned;
    const MutexLock held(items);
    dropped.swap(registry_);
    abandoned = listings_.takeOut();
    for (const auto& [record, item] : dropped) {
        countRequest<"reclaimItem">();
        if (item == root_) {
            registry_.emplace(record, item);
        }
    }
}

std::size_t TavelinVolume::keptListings() const {
    const MutexLock held(items);
    return listings_.count();
}

std::size_t TavelinVolume::liveItems() const {
    const MutexLock held(items);
    return registry_.size();
}

Outcome<void> TavelinVolume::openItem(const fskit::FSItemRef& item,
                                      fskit::FSVolumeOpenModes /*modes*/) {
    return request<"openItem">([&] { n(item); });
}

void TavelinVolume::closeItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes) {
    countRequest<"closeItem">();
    if (item == nullptr || modes != 0 || readOnly()) {
        return;
    }
    NItem& own = n(item);
    trimReserved(own);
    if (own.isUnflushed.exchange(false)) {
        try {
            ntfs->flush(own.reference);
        } catch (const std::exception&) {
            // A close cannot fail: the pages stay dirty and the next synchronise reports them.
        }
    }
}

void TavelinVolume::deactivateItem(const fskit::FSItemRef& item) {
    countRequest<"deactivateItem">();
    if (item != nullptr && !readOnly()) {
        trimReserved(n(item));
    }
}

void TavelinVolume::trimReserved(NItem& item) noexcept {
    const std::uint64_t kept = item.reservedFrom.exchange(NItem::kNothingReserved);
    if (kept == NItem::kNothingReserved) {
        return;
    }
    try {
        ntfs->freeBehindEnd(item.reference, kept);
    } catch (const std::exception&) {
        // The file may have been removed. Otherwise its next truncation gives the space back.
    }
}

} // namespace tavelin
