#include "hosts/fuse/removed_files.hpp"

#include "diagnostics/log.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <vector>

namespace tavelin::fusehost {

namespace {

constexpr auto kLongOpen = std::chrono::seconds(1);
constexpr std::uint32_t kHiddenFlag = 0x8000; // UF_HIDDEN

std::string parkedName(uint64_t ino) {
    return fmt::format("{:012x}", ino);
}

bool isAbsent(const fskit::Error& error) {
    return error.isPOSIX() && error.code() == kENOENT;
}

} // namespace

bool RemovedFiles::contains(uint64_t ino) const {
    if (isEmpty()) {
        return false;
    }
    const MutexLock held(lock_);
    return removals_.contains(ino);
}

template<typename Work>
void RemovedFiles::alone(uint64_t ino, Work&& work) {
    Removal* removal = nullptr;
    {
        const MutexLock held(lock_);
        auto found = removals_.find(ino);
        while (found != removals_.end() && found->second.busy) {
            idle_.wait(lock_);
            found = removals_.find(ino);
        }
        if (found == removals_.end()) {
            return;
        }
        removal = &found->second;
        removal->busy = true;
    }
    const bool done = work(*removal);
    {
        const MutexLock held(lock_);
        removal->busy = false;
        if (done) {
            removals_.erase(ino);
            count_ = removals_.size();
        }
    }
    idle_.notifyAll();
}

void RemovedFiles::put(uint64_t ino, Removal removal) {
    const MutexLock held(lock_);
    removals_.insert_or_assign(ino, std::move(removal));
    count_ = removals_.size();
}

Outcome<ItemRef> RemovedFiles::parkingFolder() {
    const MutexLock held(parkingLock_);
    if (parking_) {
        return parking_.again();
    }
    Outcome<ItemRef> folder = volume_.lookup(volume_.root(), kParkingFolder);
    if (!folder && isAbsent(folder.error())) {
        fskit::FSItemSetAttributesRequest hidden;
        hidden.setFlags(kHiddenFlag);
        folder =
            volume_.create(volume_.root(), kParkingFolder, fskit::FSItemType::directory, hidden);
    }
    if (folder) {
        parking_ = folder->again();
    }
    return folder;
}

Outcome<void> RemovedFiles::moveToParking(Removal& removal, uint64_t ino) {
    Outcome<ItemRef> parking = parkingFolder();
    if (!parking) {
        return parking.error();
    }
    Outcome<void> moved = volume_.rename(removal.item, removal.folder, removal.name, *parking,
                                         parkedName(ino), ItemRef());
    if (moved) {
        removal.folder = std::move(*parking);
        removal.folderIno = 0;
        removal.name = parkedName(ino);
        removal.parked = true;
    }
    return moved;
}

Outcome<void> RemovedFiles::remove(Node& file, const Node& folder, std::string_view name) {
    if (file.linkCount <= 1) {
        put(file.ino, {file.item.again(), folder.item.again(), folder.ino, std::string(name),
                       Clock::now(), false, false});
        return {};
    }
    // The count may include a short alias of this very name, so what remains is only known
    // afterwards: parked, the file has one name there and whatever others it really has.
    if (Outcome<void> parked = park(file, folder, name); !parked) {
        return parked;
    }
    leaveToOtherNames(file);
    return {};
}

void RemovedFiles::leaveToOtherNames(Node& file) {
    if (file.linkCount <= 1) {
        return;
    }
    const Outcome<fskit::FSItemAttributes> attributes = volume_.attributes(file.item);
    if (attributes && attributes->linkCount() > 1) {
        file.linkCount = attributes->linkCount() - 1;
        release(file.ino);
    }
}

Outcome<void> RemovedFiles::park(const Node& file, const Node& folder, std::string_view name) {
    Removal removal{file.item.again(),
                    folder.item.again(),
                    folder.ino,
                    std::string(name),
                    Clock::now(),
                    false,
                    false};
    Outcome<void> moved = moveToParking(removal, file.ino);
    if (moved) {
        put(file.ino, std::move(removal));
    }
    return moved;
}

Outcome<void> RemovedFiles::keep(const Node& file) {
    Outcome<ItemRef> parking = parkingFolder();
    if (!parking) {
        return parking.error();
    }
    Outcome<void> named = volume_.addHostName(file.item, *parking, parkedName(file.ino));
    if (named) {
        put(file.ino, {file.item.again(), std::move(*parking), 0, parkedName(file.ino),
                       Clock::now(), true, false});
    }
    return named;
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
        if (Outcome<void> parked = freeName(ino); !parked && result) {
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
    const MutexLock held(lock_);
    if (std::optional<fskit::Error> failure = std::exchange(failure_, std::nullopt);
        failure && result) {
        result = std::move(failure);
    }
    return result;
}

void RemovedFiles::settleOld() {
    const Clock::time_point limit = Clock::now() - kLongOpen;
    Outcome<void> parked = parkWhere([&](const Removal& removal) { return removal.since < limit; });
    if (!parked) {
        noteFailure(parked.error(), "removed file");
    }
}

void RemovedFiles::finish(const Removal& removal) {
    const Outcome<void> removed = volume_.remove(removal.item, removal.folder, removal.name);
    if (!removed) {
        noteFailure(removed.error(), removal.name);
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
        finish(removal);
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
    {
        const MutexLock held(parkingLock_);
        if (parking_) {
            if (const Outcome<void> removed =
                    volume_.remove(parking_, volume_.root(), kParkingFolder);
                !removed) {
                noteFailure(removed.error(), std::string(kParkingFolder));
            }
            parking_ = ItemRef();
        }
    }
    return settle();
}

void RemovedFiles::cleanUp() {
    Outcome<ItemRef> folder = volume_.lookup(volume_.root(), kParkingFolder);
    if (!folder) {
        return; // the usual case: there is none
    }
    const Outcome<std::vector<DirectoryEntry>> left = volume_.list(*folder, false);
    if (!left) {
        noteFailure(left.error(), std::string(kParkingFolder));
        return;
    }
    for (const DirectoryEntry& entry : *left) {
        Outcome<ItemRef> item = volume_.lookup(*folder, entry.name);
        if (Outcome<void> removed =
                item ? volume_.remove(*item, *folder, entry.name) : Outcome<void>(item.error());
            !removed) {
            noteFailure(removed.error(), entry.name);
        }
    }
    if (const Outcome<void> removed = volume_.remove(*folder, volume_.root(), kParkingFolder);
        !removed) {
        noteFailure(removed.error(), std::string(kParkingFolder));
    }
    const MutexLock held(lock_);
    failure_.reset(); // logged; it is nothing that this mount has changed
}

} // namespace tavelin::fusehost
