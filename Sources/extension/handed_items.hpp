/// The items that FSKit holds at the moment.
///
/// FSKit must get the same object for the same file for as long as it holds one, and whatever it
/// got must live until it gives it back with a reclaim. A lookup may find a file's item in the
/// front end's registry just before a reclaim of that item takes it out. Handing out and taking
/// back therefore exclude each other here, and what is handed out is looked up in the registry
/// again under the same lock: FSKit gets the registered item, whichever came first.
///
/// Lock order: this table's lock, then the registry's. Neither is held while the volume works.
#pragma once

#import "extension/item.h"
#include "extension/memory.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <cstddef>
#include <unordered_map>

namespace tavelin {

class HandedItems {
  public:
    /// `volume` must outlive this.
    explicit HandedItems(TavelinVolume& volume) : volume_(volume) {}
    HandedItems(const HandedItems&) = delete;
    HandedItems& operator=(const HandedItems&) = delete;

    /// The object FSKit is to get for an item that a request answered. Throws std::bad_alloc where
    /// none can be made; the item is not handed out then.
    [[nodiscard]] FSItem* handOut(const fskit::FSItemRef& item);

    /// Lets go of an item that FSKit gives back, and answers it; null when FSKit holds it still. A
    /// second reclaim, an item that is not ours and nil change nothing.
    std::shared_ptr<NItem> reclaim(FSItem* item);

    /// How many items FSKit holds.
    [[nodiscard]] std::size_t count() const;

  private:
    /// Takes the object out of the table, under the lock.
    std::shared_ptr<NItem> takeBack(FSItem* item) TAVELIN_REQUIRES(mutex_);

    TavelinVolume& volume_;
    mutable Mutex mutex_ TAVELIN_ACQUIRED_AFTER(lock_order::directories)
        TAVELIN_ACQUIRED_BEFORE(lock_order::items);
    /// Each object keeps the key it stands under alive.
    std::unordered_map<const NItem*, Strong<::NItem*>> handed_ TAVELIN_GUARDED_BY(mutex_);
};

} // namespace tavelin
