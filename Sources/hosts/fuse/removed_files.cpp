#include "hosts/fuse/removed_files.hpp"

#include "core/driver2.hpp"
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

bool RemovedFiles::contains(uint64_t ino) const {
    if (isEmpty()) {
        return false;
    }
    const MutexLock held(lock_);
    return removals_.contains(ino);
}

RemovedFiles::Removal* RemovedFiles::begin(uint64_t ino) {
    const MutexLock held(lock_);
    auto found = removals_.find(ino);
    while (found != removals_.end() && found->second.busy) {
        idle_.wait(lock_);
        found = removals_.find(ino);
    }
    if (found == removals_.end()) {
        return nullptr;
    }
    found->second.busy = true;
    return &found->second;
}

void RemovedFiles::end(uint64_t ino, bool done) {
    {
        const MutexLock held(lock_);
        const auto removal = removals_.find(ino);
        removal->second.busy = false;
        if (done) {
            removals_.erase(removal);
            count_ = removals_.size();
        }
    }
    idle_.notifyAll();
}

template<typename Work>
void RemovedFiles::alone(uint64_t ino, Work&& work) {
    Removal* const removal = begin(ino);
    if (removal == nullptr) {
        return;
    }
    bool done = false;
    try {
        done = work(*removal);
    } catch (...) {
        end(ino, false); // nobody must wait for it forever
        throw;
    }
    end(ino, done);
}

void RemovedFiles::put(uint64_t ino, Removal removal) {
    const MutexLock held(lock_);
    removals_.insert_or_assign(ino, std::move(removal));
    count_ = removals_.size();
}

Outcome<void> RemovedFiles::moveToParking(Removal& removal, uint64_t ino) {
    Outcome<ItemRef> parking = parking_.open();
    if (!parking) {
        return parking.error();
    }
    std::string parked = ParkingFolder::nameOf(ino);
    Outcome<void> moved =
        volume_.rename(removal.item, removal.folder, removal.name, *parking, parked, ItemRef());
    if (moved) {
        removal.folder = std::move(*parking);
        removal.folderIno = 0;
        removal.name = std::move(parked);
        removal.parked = true;
    }
    return moved;
}

Outcome<void> RemovedFiles::remove(const Node& file, const Node& folder, std::string_view name) {
    // The count may include a short alias of this very name, which goes with it.
    if (file.linkCount > 1) {
        const Outcome<size_t> names = volume_.countNames(file.item);
        if (!names) {
            return names.error();
        }
        if (*names > 1) {
            return volume_.remove(file.item, folder.item, name);
        }
    }
    put(file.ino, {file.item.again(), folder.item.again(), folder.ino, std::string(name)});
    return {};
}

Outcome<void> RemovedFiles::keep(const Node& file) {
    Outcome<ItemRef> parking = parking_.open();
    if (!parking) {
        return parking.error();
    }
    std::string parked = ParkingFolder::nameOf(file.ino);
    Outcome<void> named = volume_.addHostName(file.item, *parking, parked);
    if (named) {
        Removal removal{file.item.again(), std::move(*parking), 0, std::move(parked)};
        removal.parked = true;
        put(file.ino, std::move(removal));
    }
    return named;
}

void RemovedFiles::leaveToOtherNames(const Node& file) {
    if (file.linkCount <= 1) {
        return;
    }
    // When that cannot be told, its other names show again once nobody has it open.
    const Outcome<size_t> names = volume_.countNames(file.item);
    if (names && *names > 1) {
        release(file.ino);
    }
}

void RemovedFiles::giveBack(const Node& file, const Node& folder, std::string_view name) {
    alone(file.ino, [&](Removal& removal) {
        removal.homeFolder = folder.item.again();
        removal.home = name;
        // Where this fails it is tried again when the file is released.
        return static_cast<bool>(moveHome(removal, file.ino));
    });
}

Outcome<void> RemovedFiles::moveHome(const Removal& removal, uint64_t ino) {
    const Outcome<std::optional<Found>> present = volume_.find(removal.homeFolder, removal.home);
    if (!present) {
        return present.error();
    }
    if (!*present) {
        return volume_.rename(removal.item, removal.folder, removal.name, removal.homeFolder,
                              removal.home, ItemRef());
    }
    // Told by its number: once another name of the file has been replaced, the volume hands out a
    // new item for it.
    return Driver2::ino((*present)->attributes.fileID()) == ino
               ? volume_.remove(removal.item, removal.folder, removal.name)
               : Outcome<void>(fskit::fs_errorForPOSIXError(kEEXIST));
}

Outcome<void> RemovedFiles::freeName(uint64_t ino) {
    Outcome<void> result;
    alone(ino, [&](Removal& removal) {
        if (!removal.parked) {
            result = moveToParking(removal, ino);
        }
        return false;
    });
    return result;
}

template<typename Wanted>
Outcome<void> RemovedFiles::parkWhere(Wanted&& wanted) {
    std::vector<uint64_t> chosen;
    if (!isEmpty()) {
        const MutexLock held(lock_);
        for (const auto& [ino, removal] : removals_) {
            // A busy one is waited for: whoever works on it parks or removes it.
            if (removal.busy || (!removal.parked && wanted(removal))) {
                chosen.push_back(ino);
            }
        }
    }
    Outcome<void> result;
    for (const uint64_t ino : chosen) {
        if (Outcome<void> parked = freeName(ino);
            !parked && (result || isLackOfRoom(result.error()))) {
            result = std::move(parked);
        }
    }
    return result;
}

Outcome<void> RemovedFiles::freeFolder(const Node& folder) {
    return parkWhere([&](const Removal& removal) { return removal.folderIno == folder.ino; });
}

Outcome<void> RemovedFiles::settle() {
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

void RemovedFiles::settleOld() {
    const Clock::time_point limit = Clock::now() - kLongOpen;
    noteParking(parkWhere([&](const Removal& removal) { return removal.since < limit; }));
}

void RemovedFiles::noteParking(const Outcome<void>& parked) {
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

void RemovedFiles::finish(const Removal& removal, uint64_t ino) {
    const Outcome<void> done = removal.homeFolder
                                   ? moveHome(removal, ino)
                                   : volume_.remove(removal.item, removal.folder, removal.name);
    if (!done) {
        noteFailure(done.error(), removal.name);
    }
}

void RemovedFiles::noteFailure(const fskit::Error& error, const std::string& name) {
    log().error(fmt::format("removing {}: {}", name, error.localizedDescription()));
    const MutexLock held(lock_);
    if (!failure_) {
        failure_ = error;
    }
}

void RemovedFiles::release(uint64_t ino) {
    if (isEmpty()) {
        return;
    }
    alone(ino, [&](const Removal& removal) {
        finish(removal, ino);
        return true;
    });
}

Outcome<void> RemovedFiles::releaseAll() {
    std::vector<uint64_t> all;
    {
        const MutexLock held(lock_);
        for (const auto& [ino, removal] : removals_) {
            all.push_back(ino);
        }
    }
    for (const uint64_t ino : all) {
        release(ino);
    }
    if (const Outcome<void> removed = parking_.remove(); !removed) {
        noteFailure(removed.error(), std::string(kParkingFolder));
    }
    return settle();
}

} // namespace tavelin::fusehost
