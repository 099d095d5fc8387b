/// Makes one tree like another: the work of `sync`, in either direction.
#pragma once

#include "hosts/cli/copy/item_copier.hpp"
#include "hosts/cli/glob.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/text.hpp"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::cli {

/// The choices of the user, fixed for a run.
struct SyncSettings {
    bool dryRun = false;   ///< nothing is changed on either side
    bool deletes = false;  ///< what the source does not have is removed from the target
    bool checksum = false; ///< contents are compared, whatever the times say
    bool streams = true;
    std::vector<std::string> excluded; ///< patterns of paths below the source
};

/// What happens to an item of the target. `update` changes only times, or a directory's streams.
enum class SyncAction { create, replace, update, remove, keep };

/// Called for each item once it is done, or would be; `path` is below the source. `bytes` are those
/// of a file's content that is copied.
using SyncObserver =
    std::function<void(SyncAction action, const std::string& path, std::uint64_t bytes)>;

/// From and To are HostTree and VolumeTree, in either order.
///
/// Problems of single items go to `problem`, and the rest goes on. What could not be copied or
/// compared is never removed from the target, and nothing is removed from a directory whose source
/// cannot be listed. All members outlive the object. One thread.
template<typename From, typename To>
class TreeSync {
  public:
    using Problem = std::function<void(const ItemFailure& failure)>;

    TreeSync(From& from, To& to, ItemCopier& copier, const SyncSettings& settings,
             SyncObserver observer, Problem problem)
        : from_(from),
          to_(to),
          copier_(copier),
          settings_(settings),
          observer_(std::move(observer)),
          problem_(std::move(problem)) {}

    using Source = typename From::Directory;
    using Target = typename To::Directory;

    /// Makes what is in `target` like what is in `source`. A null target is one that a dry run did
    /// not make. `path` is below the tree's root.
    void sync(const Source& source, const Target* target, const std::string& path = "") {
        if (depth_ >= kTreeDepthMax) {
            throw ItemFailure(escaped(source.path) + ": too many directories inside each other");
        }
        const SyncListing theirs = from_.list(source);
        SyncListing ours = target == nullptr ? SyncListing() : to_.list(*target);
        if (!settings_.dryRun) {
            for (const std::string& name : ours.partials) {
                guarded([&] { to_.removePartial(*target, name); });
            }
        }
        // Restored unless the whole run ends: guarded() catches what an item throws.
        ++depth_;
        for (const auto& [name, entry] : theirs.entries) {
            throwIfInterrupted();
            if (isExcluded(joined(path, name))) {
                continue;
            }
            guarded([&, &itsName = name, &item = entry] {
                const auto there = counterpart(target, itsName, theirs.entries, ours.entries);
                syncItem({source, target, itsName, joined(path, itsName), item}, there);
            });
        }
        --depth_;
        if (settings_.deletes && target != nullptr) {
            removeRest(*target, ours.entries, path);
        }
    }

  private:
    /// An item of the source and where it goes.
    struct Item {
        const Source& source;
        const Target* target;
        const std::string& name;
        const std::string path;
        const SyncEntry& entry;
    };
    /// What the target has under an item's name.
    struct Counterpart {
        SyncEntry entry;
        bool hasSameName = true; ///< else the volume or the host has it in another case
    };

    /// Finds what an item's name stands for in the target, and takes it out of `ours`: what is left
    /// there in the end has no source. The target may know one item by another case or by a short
    /// name of DOS. Two items of the source that are one in the target must not replace each other.
    std::optional<Counterpart> counterpart(const Target* target, const std::string& name,
                                           const SyncEntries& theirs, SyncEntries& ours) {
        if (const auto exact = ours.find(name); exact != ours.end()) {
            const SyncEntry entry = exact->second;
            ours.erase(exact);
            return Counterpart{entry};
        }
        const auto number = target == nullptr ? std::nullopt : to_.find(*target, name);
        if (!number) {
            return std::nullopt;
        }
        const auto other = std::find_if(ours.begin(), ours.end(), [&](const auto& there) {
            return there.second.number == *number;
        });
        if (other == ours.end() || theirs.contains(other->first)) {
            throw ItemFailure(escaped(name) + ": left out, as another item has the same name in "
                                              "the target, perhaps in another case",
                              name, kEEXIST);
        }
        const SyncEntry entry = other->second;
        std::erase_if(ours, [&](const auto& there) { return there.second.number == *number; });
        return Counterpart{entry, false};
    }

    void syncItem(const Item& item, const std::optional<Counterpart>& there) {
        const bool isDirectory = item.entry.type == fskit::FSItemType::directory;
        if (there && isDirectory != (there->entry.type == fskit::FSItemType::directory)) {
            clearTheWay(item, *there);
            return syncItem(item, std::nullopt);
        }
        if (isDirectory) {
            return syncDirectory(item, there);
        }
        if (there && there->hasSameName && isSame(item, there->entry)) {
            return settleTime(item, there->entry);
        }
        if (!settings_.dryRun && !copier_.copy(item.source, *item.target, item.name)) {
            return;
        }
        observe(there ? SyncAction::replace : SyncAction::create, item.path,
                item.entry.type == fskit::FSItemType::file ? item.entry.size : 0);
    }

    /// Removes a directory where a file is to be, or the other way round.
    void clearTheWay(const Item& item, const Counterpart& there) {
        if (!settings_.deletes || !there.hasSameName) {
            throw ItemFailure(escaped(item.path) + ": one side has a directory of this name, the "
                                                   "other has none: --delete replaces it",
                              item.path, kEEXIST);
        }
        if (!settings_.dryRun) {
            to_.remove(*item.target, item.name, there.entry);
        }
        observe(SyncAction::remove, item.path);
    }

    /// Whether a file or link needs no copy. Its time may still differ.
    bool isSame(const Item& item, const SyncEntry& there) {
        const SyncEntry& here = item.entry;
        if (here.type != there.type) {
            return false;
        }
        if (here.type == fskit::FSItemType::symlink) {
            return from_.linkTarget(item.source, item.name) ==
                   to_.linkTarget(*item.target, item.name);
        }
        if (here.type != fskit::FSItemType::file || here.size != there.size) {
            return false;
        }
        return (settings_.checksum ? copier_.isSame(item.source, *item.target, item.name)
                                   : isSameTime(here.modified, there.modified)) &&
               (!settings_.streams ||
                from_.streams(item.source, item.name) == to_.streams(*item.target, item.name));
    }

    void settleTime(const Item& item, const SyncEntry& there) {
        if (isSameTime(item.entry.modified, there.modified)) {
            return observe(SyncAction::keep, item.path);
        }
        if (!settings_.dryRun) {
            to_.setModified(*item.target, item.name, item.entry.modified);
        }
        observe(SyncAction::update, item.path);
    }

    void syncDirectory(const Item& item, const std::optional<Counterpart>& there) {
        const Source source = from_.enter(item.source, item.name);
        std::optional<Target> target;
        if (there) {
            target = to_.enter(*item.target, item.name);
        } else if (!settings_.dryRun) {
            target = to_.make(*item.target, item.name);
        }
        if (!there) {
            observe(SyncAction::create, item.path + "/");
        }
        const std::uint64_t before = std::exchange(changes_, 0);
        sync(source, target ? &*target : nullptr, item.path);
        const bool isNewInside = std::exchange(changes_, before) > 0;
        bool isUpdated = there && !isSameTime(item.entry.modified, there->entry.modified);
        if (target && settings_.streams) {
            isUpdated |= syncStreams(source, *target);
        }
        // Last of all, as every entry that is made changes the directory's time.
        if (target && !settings_.dryRun && (!there || isUpdated || isNewInside)) {
            to_.setModified(*target, item.entry.modified);
        }
        if (there) {
            observe(isUpdated ? SyncAction::update : SyncAction::keep, item.path + "/");
        }
    }

    /// Makes a directory's streams those of the source. Whether they were others.
    bool syncStreams(const Source& source, const Target& target) {
        const SyncStreams theirs = from_.streams(source);
        const SyncStreams ours = to_.streams(target);
        if (theirs == ours) {
            return false;
        }
        if (!settings_.dryRun) {
            for (const auto& [name, size] : ours) {
                if (!theirs.contains(name)) {
                    to_.removeStream(target, name);
                }
            }
            copier_.copyStreams(source, target);
        }
        return true;
    }

    void removeRest(const Target& target, const SyncEntries& rest, const std::string& path) {
        for (const auto& [name, entry] : rest) {
            throwIfInterrupted();
            const std::string below = joined(path, name);
            if (isExcluded(below) || To::isKept(rooted(joined(target.path, name)))) {
                continue;
            }
            guarded([&, &itsName = name, &item = entry] {
                if (!settings_.dryRun) {
                    to_.remove(target, itsName, item);
                }
                observe(SyncAction::remove, below);
            });
        }
    }

    [[nodiscard]] bool isExcluded(const std::string& path) const {
        return std::any_of(settings_.excluded.begin(), settings_.excluded.end(),
                           [&](const auto& pattern) { return matchesPath(pattern, path); });
    }

    /// The volume keeps times in units of 100 ns.
    static bool isSameTime(const std::timespec& a, const std::timespec& b) noexcept {
        constexpr long kUnit = 100;
        return a.tv_sec == b.tv_sec && a.tv_nsec / kUnit == b.tv_nsec / kUnit;
    }

    void observe(SyncAction action, const std::string& path, std::uint64_t bytes = 0) {
        changes_ += action == SyncAction::keep ? 0 : 1;
        observer_(action, path, bytes);
    }

    /// Calls `work`. A problem of one item does not end the rest.
    template<typename Work>
    void guarded(Work&& work) {
        try {
            work();
        } catch (const ItemFailure& failure) {
            problem_(failure);
        }
    }

    From& from_;
    To& to_;
    ItemCopier& copier_;
    const SyncSettings& settings_;
    const SyncObserver observer_;
    const Problem problem_;
    int depth_ = 0;             ///< directories being compared, from the outermost
    std::uint64_t changes_ = 0; ///< of the entries of the current directory
};

} // namespace tavelin::cli
