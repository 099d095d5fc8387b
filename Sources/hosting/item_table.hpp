/// How often each item was handed out, and its reclaim once the host has let go of it as often.
///
/// A request that hands out an item (activate, lookup, create, symbolic link) runs inside a
/// InFlightLookup and takes the item from its reply through it, which gives an ItemRef. The last
/// ItemRef of an item reclaims it.
///
/// The race between the two: a request may already hold an item in its reply while the item's last
/// reference is dropped. Reclaiming it then would leave the host with an item that its volume has
/// forgotten. So a dropped item is reclaimed only when every hand-out that began before the drop
/// has ended, and only if none of them took it up again. A reclaim is sent under the table's lock;
/// no hand-out begins meanwhile. The table's lock comes before all locks of the front end.
#pragma once

#include "fskit/api/volume.hpp"
#include "platform/mutex.hpp"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tavelin {

class ItemTable;

namespace detail {
/// One for each item that a host holds, so small: neither number outgrows the references in memory.
struct ItemEntry {
    fskit::FSItemRef item;
    std::uint32_t count = 0; ///< ItemRefs
    std::uint32_t drops = 0; ///< its records in the list of dropped items
};
} // namespace detail

/// One reference to an item, given back when the handle goes. Must not outlive its module host; one
/// that outlives the volume is good for nothing but its destruction. May be used by several threads
/// at a time, except to move it.
class ItemRef {
  public:
    ItemRef() = default;
    ItemRef(ItemRef&& other) noexcept
        : table_(std::exchange(other.table_, nullptr)),
          entry_(std::exchange(other.entry_, nullptr)) {}
    ItemRef& operator=(ItemRef&& other) noexcept {
        std::swap(table_, other.table_);
        std::swap(entry_, other.entry_);
        return *this;
    }
    ~ItemRef();

    explicit operator bool() const noexcept { return entry_ != nullptr; }
    /// Absent for an empty handle.
    [[nodiscard]] const fskit::FSItemRef& item() const noexcept;
    /// Whether both are references to the same item.
    [[nodiscard]] bool operator==(const ItemRef& other) const noexcept {
        return entry_ == other.entry_;
    }
    /// One more reference to the same item.
    [[nodiscard]] ItemRef duplicate() const;

  private:
    friend class ItemTable;
    ItemRef(ItemTable* table, detail::ItemEntry* entry) : table_(table), entry_(entry) {}

    ItemTable* table_ = nullptr;
    detail::ItemEntry* entry_ = nullptr;
};

/// Any thread may call anything.
class ItemTable {
  public:
    /// Sends one reclaim request; must not throw and must not call back into the table.
    using Reclaim = std::function<void(const fskit::FSItemRef&)>;

    explicit ItemTable(Reclaim reclaim) : reclaim_(std::move(reclaim)) {}
    /// A reference that is left stops the process: it would point nowhere.
    ~ItemTable();
    ItemTable(const ItemTable&) = delete;
    ItemTable& operator=(const ItemTable&) = delete;

    /// Lives from before a request that hands out an item until its item has been taken.
    class InFlightLookup {
      public:
        explicit InFlightLookup(ItemTable& table) : table_(table), ticket_(table.begin()) {}
        ~InFlightLookup() { table_.end(ticket_); }
        InFlightLookup(const InFlightLookup&) = delete;
        InFlightLookup& operator=(const InFlightLookup&) = delete;

        [[nodiscard]] ItemRef take(fskit::FSItemRef item) { return table_.count(std::move(item)); }

      private:
        ItemTable& table_;
        const std::uint64_t ticket_;
    };

    /// Reclaims everything still handed out, as when a volume is unmounted. References that remain
    /// may be dropped later, without effect.
    void reclaimAll();

    /// Items handed out and not reclaimed.
    [[nodiscard]] std::size_t size() const;

  private:
    friend class ItemRef;
    struct Dropped {
        detail::ItemEntry* entry;
        std::uint64_t ticket; ///< hand-outs with lower ones began before the drop
    };

    [[nodiscard]] std::uint64_t begin();
    void end(std::uint64_t ticket);
    [[nodiscard]] ItemRef count(fskit::FSItemRef item);
    [[nodiscard]] ItemRef countAgain(detail::ItemEntry& entry);
    void drop(detail::ItemEntry& entry);
    void reclaimDropped() TAVELIN_REQUIRES(lock_);

    const Reclaim reclaim_;
    mutable Mutex lock_;
    /// Entries stay where they are, so that references point at them.
    std::unordered_map<const fskit::FSItem*, detail::ItemEntry> entries_ TAVELIN_GUARDED_BY(lock_);
    std::deque<Dropped> dropped_ TAVELIN_GUARDED_BY(lock_);         // in order of their tickets
    std::vector<std::uint64_t> handOuts_ TAVELIN_GUARDED_BY(lock_); // tickets of those in flight
    std::uint64_t nextTicket_ TAVELIN_GUARDED_BY(lock_) = 0;
    bool closed_ TAVELIN_GUARDED_BY(lock_) = false;
};

} // namespace tavelin
