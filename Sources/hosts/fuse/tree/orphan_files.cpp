#include "hosts/fuse/tree/orphan_files.hpp"

#include "diagnostics/log.hpp"
#include "fskit/api/error.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <vector>

namespace tavelin::fusehost {

namespace {

constexpr auto kLongOpen = std::chrono::seconds(1);

bool isLackOfRoom(const fskit::Error& error) {
    return error.isPOSIX() && error.code() == kENOSPC;
}

} // namespace

bool OrphanFiles::contains(fskit::FSItemID id) const {
    if (isEmpty()) {
        return false;
    }
    const MutexLock held(lock_);
    return removals_.contains(id);
}

OrphanFiles::Removal* OrphanFiles::begin(fskit::FSItemID id) {
    const MutexLock held(lock_);
    auto found = removals_.find(id);
    while (found != removals_.end() && found->second.busy) {
        idle_.wait(lock_);
        found = removals_.find(id);
    }
    if (found == removals_.end()) {
        return nullptr;
    }
    found->second.busy = true;
    return &found->second;
}

void OrphanFiles::end(fskit::FSItemID id, bool done) {
    {
        const MutexLock held(lock_);
        const auto removal = removals_.find(id);
        removal->second.busy = false;
        if (done) {
            removals_.erase(removal);
            count_ = removals_.size();
        }
    }
    idle_.notifyAll();
}

template<typename Work>
void OrphanFiles::withExclusive(fskit::FSItemID id, Work&& work) {
    Removal* const removal = begin(id);
    if (removal == nullptr) {
        return;
    }
    bool done = false;
    try {
        done = work(*removal);
    } catch (...) {
        end(id, false); // nobody must wait for it forever
        throw;
    }
    end(id, done);
}

void OrphanFiles::put(fskit::FSItemID id, Removal removal) {
    const MutexLock held(lock_);
    removals_.insert_or_assign(id, std::move(removal));
    count_ = removals_.size();
}

Outcome<void> OrphanFiles::moveToParking(Removal& removal, fskit::FSItemID id) {
    Outcome<ItemRef> parking = parking_.open();
    if (!parking) {
        return parking.error();
    }
    std::string parked = OrphanDirectory::nameOf(id);
    Outcome<void> moved =
        volume_.rename(removal.item, removal.directory, removal.name, *parking, parked, ItemRef());
    if (moved) {
        removal.directory = std::move(*parking);
        removal.directoryID = fskit::FSItemIDInvalid;
        removal.name = std::move(parked);
        removal.parked = true;
    }
    return moved;
}

Outcome<void> OrphanFiles::remove(const Node& file, const Node& directory, std::string_view name) {
    // The count may include a short alias of this very name, which goes with it.
    if (file.linkCount > 1) {
        const Outcome<size_t> names = volume_.countNames(file.item);
        if (!names) {
            return names.error();
        }
        if (*names > 1) {
            return volume_.remove(file.item, directory.item, name);
        }
    }
    put(file.id,
        {file.item.duplicate(), directory.item.duplicate(), directory.id, std::string(name)});
    return {};
}

Outcome<void> OrphanFiles::linkBeforeReplace(const Node& file) {
    Outcome<ItemRef> parking = parking_.open();
    if (!parking) {
        return parking.error();
    }
    std::string parked = OrphanDirectory::nameOf(file.id);
    Outcome<void> named = volume_.linkInternal(file.item, *parking, parked);
    if (named) {
        Removal removal{file.item.duplicate(), std::move(*parking), fskit::FSItemIDInvalid,
                        std::move(parked)};
        removal.parked = true;
        put(file.id, std::move(removal));
    }
    return named;
}

void OrphanFiles::dropIfStillLinked(const Node& file) {
    if (file.linkCount <= 1) {
        return;
    }
    // When that cannot be told, its other names show again once nobody has it open.
    const Outcome<size_t> names = volume_.countNames(file.item);
    if (names && *names > 1) {
        release(file.id);
    }
}

void OrphanFiles::undoReplace(const Node& file, const Node& directory, std::string_view name) {
    withExclusive(file.id, [&](Removal& removal) {
        removal.homeDirectory = directory.item.duplicate();
        removal.home = name;
        // Where this fails it is tried again when the file is released.
        return static_cast<bool>(moveHome(removal));
    });
}

Outcome<void> OrphanFiles::moveHome(const Removal& removal) {
    const Outcome<std::optional<Found>> present = volume_.find(removal.homeDirectory, removal.home);
    if (!present) {
        return present.error();
    }
    if (!*present) {
        return volume_.rename(removal.item, removal.directory, removal.name, removal.homeDirectory,
                              removal.home, ItemRef());
    }
    return (*present)->item == removal.item
               ? volume_.remove(removal.item, removal.directory, removal.name)
               : Outcome<void>(fskit::fs_errorForPOSIXError(kEEXIST));
}

Outcome<void> OrphanFiles::moveAside(fskit::FSItemID id) {
    Outcome<void> result;
    withExclusive(id, [&](Removal& removal) {
        if (!removal.parked) {
            result = moveToParking(removal, id);
        }
        return false;
    });
    return result;
}

template<typename Wanted>
Outcome<void> OrphanFiles::parkWhere(Wanted&& wanted) {
    std::vector<uint64_t> chosen;
    if (!isEmpty()) {
        const MutexLock held(lock_);
        for (const auto& [id, removal] : removals_) {
            // A busy one is waited for: whoever works on it parks or removes it.
            if (removal.busy || (!removal.parked && wanted(removal))) {
                chosen.push_back(id);
            }
        }
    }
    Outcome<void> result;
    for (const fskit::FSItemID id : chosen) {
        if (Outcome<void> parked = moveAside(id);
            !parked && (result || isLackOfRoom(result.error()))) {
            result = std::move(parked);
        }
    }
    return result;
}

Outcome<void> OrphanFiles::moveAsideChildren(const Node& directory) {
    return parkWhere([&](const Removal& removal) { return removal.directoryID == directory.id; });
}

Outcome<void> OrphanFiles::persistOrphans() {
    Outcome<void> result = parkWhere([](const Removal&) { return true; });
    noteParking(result);
    if (!result && isLackOfRoom(result.error())) {
        result = {}; // who synchronises asks for data, and that has its room
    }
    const MutexLock held(lock_);
    if (std::optional<fskit::Error> failure = std::exchange(failure_, std::nullopt);
        failure && result) {
        result = std::move(failure);
    }
    return result;
}

void OrphanFiles::persistExpired() {
    const Clock::time_point limit = Clock::now() - kLongOpen;
    noteParking(parkWhere([&](const Removal& removal) { return removal.since < limit; }));
}

void OrphanFiles::noteParking(const Outcome<void>& parked) {
    {
        const MutexLock held(lock_);
        const bool failedBefore = std::exchange(parkingFails_, !parked);
        if (parked || failedBefore) {
            return;
        }
    }
    log().error(fmt::format("a removed file that is still open could not be moved away: {}",
                            parked.error().localizedDescription()));
}

void OrphanFiles::finish(const Removal& removal) {
    const Outcome<void> done = removal.homeDirectory
                                   ? moveHome(removal)
                                   : volume_.remove(removal.item, removal.directory, removal.name);
    if (!done) {
        noteFailure(done.error(), removal.name);
    }
}

void OrphanFiles::noteFailure(const fskit::Error& error, const std::string& name) {
    log().error(fmt::format("removing {}: {}", name, error.localizedDescription()));
    const MutexLock held(lock_);
    if (!failure_) {
        failure_ = error;
    }
}

void OrphanFiles::release(const Node& file) {
    if (isEmpty()) {
        return;
    }
    {
        // The record of a directory that was removed may be another file's by now, which is removed
        // and open in its turn: the number alone does not tell.
        const MutexLock held(lock_);
        const auto removal = removals_.find(file.id);
        if (removal == removals_.end() || !(removal->second.item == file.item)) {
            return;
        }
    }
    release(file.id);
}

void OrphanFiles::release(fskit::FSItemID id) {
    withExclusive(id, [&](const Removal& removal) {
        finish(removal);
        return true;
    });
}

Outcome<void> OrphanFiles::releaseAll() {
    std::vector<uint64_t> all;
    {
        const MutexLock held(lock_);
        for (const auto& [id, removal] : removals_) {
            all.push_back(id);
        }
    }
    for (const fskit::FSItemID id : all) {
        release(id);
    }
    if (const Outcome<void> removed = parking_.remove(); !removed) {
        noteFailure(removed.error(), std::string(kOrphanDirectory));
    }
    return persistOrphans();
}

} // namespace tavelin::fusehost
