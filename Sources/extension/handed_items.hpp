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
#include "platform/mutex.hpp"

#include <cstddef>
#include <map>

namespace tavelin {

class HandedItems {
  public:
    /// `volume` must outlive this.
    explicit HandedItems(TavelinVolume& volume) : volume_(volume) {}
    HandedItems(const HandedItems&) = delete;
    HandedItems& operator=(const HandedItems&) = delete;

    /// The object FSKit is to get for an item that a request found; nil for null.
    [[nodiscard]] FSItem* found(const fskit::FSItemRef& item);

    /// The same for a file that a request made. When its record was used before by a file that is
    /// removed but not reclaimed yet, the registry answers that file's item; FSKit knows it as
    /// dead, so the new file gets an item and an object of its own.
    [[nodiscard]] FSItem* created(const fskit::FSItemRef& item);

    /// Notes that the file behind an item lost a name, perhaps its last.
    void removed(FSItem* item);

    /// Lets go of an item that FSKit gives back. A second reclaim, an item that is not ours and
    /// nil change nothing. Answers through `reply` in every case.
    void reclaim(FSItem* item, const fskit::ErrorReply& reply);

    /// How many items FSKit holds.
    [[nodiscard]] std::size_t count() const;

  private:
    struct Handed {
        Strong<::NItem*> object;
        bool removed = false;
    };

    FSItem* handOut(std::uint64_t ino, std::uint64_t parent) TAVELIN_REQUIRES(mutex_);
    void takeBack(FSItem* item, const fskit::ErrorReply& reply) TAVELIN_REQUIRES(mutex_);

    TavelinVolume& volume_;
    mutable Mutex mutex_;
    /// Each object keeps the key it stands under alive.
    std::map<const NItem*, Handed> handed_ TAVELIN_GUARDED_BY(mutex_);
};

} // namespace tavelin
