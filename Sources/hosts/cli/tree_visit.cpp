#include "hosts/cli/tree_visit.hpp"

#include "hosts/cli/report.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <algorithm>
#include <memory>
#include <optional>
#include <set>
#include <utility>

namespace tavelin::cli {
namespace {

/// Levels of directories inside each other. Each takes a frame of the stack.
constexpr std::size_t kVisitDepthMax = 2000;

/// Goes on where the order of names cannot be followed: names of a damaged index that are out of
/// place are listed all the same.
void forEachUnsorted(VolumeClient& volume, const ItemRef& directory, const std::string& path,
                     const std::function<void(const DirectoryEntry& entry)>& each) {
    std::set<std::string, std::less<>> done;
    NTFSListPosition position;
    for (;;) {
        const auto page = volume.listSorted(directory, position);
        if (!page || page->empty()) {
            break; // at the same place as before, unless the device has recovered
        }
        for (const DirectoryEntry& entry : *page) {
            done.insert(entry.name);
        }
    }
    for (const DirectoryEntry& entry : valueOf(volume.list(directory, true), path)) {
        if (!done.contains(entry.name)) {
            each(entry);
        }
    }
}

class TreeVisit {
  public:
    TreeVisit(VolumeClient& volume, const TreeVisitor& visitor)
        : volume_(volume), visitor_(visitor) {}

    void below(const ItemRef& directory, const std::string& path, std::size_t depth) {
        // The entry before, as the last one is told to be it.
        std::optional<DirectoryEntry> waiting;
        const auto visitWaiting = [&](bool isLast) {
            if (waiting) {
                const DirectoryEntry entry = *std::exchange(waiting, std::nullopt);
                auto attributes = entry.attributes.value_or(fskit::FSItemAttributes());
                attributes.setType(entry.type);
                visit({joined(path, entry.name), entry, attributes, directory, depth, isLast});
            }
        };
        try {
            forEachEntry(volume_, directory, path, [&](const DirectoryEntry& entry) {
                visitWaiting(false);
                waiting = entry;
            });
        } catch (const ItemFailure&) { // the rest of the directory cannot be read
            visitWaiting(true);
            throw;
        }
        visitWaiting(true);
    }

    void start(const ItemRef& directory, const std::string& path) {
        entered_.insert(valueOf(volume_.attributes(directory), path).fileID());
        below(directory, path, 1);
    }

    [[nodiscard]] bool isComplete() const noexcept { return isComplete_; }

  private:
    void visit(const TreeItem& item) {
        if (!visitor_.visit(item) || item.entry.type != fskit::FSItemType::directory) {
            return;
        }
        if (entered_.insert(item.entry.itemID).second) {
            enter(item);
        }
        if (visitor_.leave) {
            visitor_.leave(item);
        }
    }

    void enter(const TreeItem& item) {
        try {
            if (item.depth >= kVisitDepthMax) {
                throwItemError(item.path, kELOOP);
            }
            const Found child = valueOf(volume_.lookup(item.directory, item.entry.name), item.path);
            below(child.item, item.path, item.depth + 1);
        } catch (const ItemFailure& failure) {
            tellFailure(failure);
            isComplete_ = false;
        }
    }

    VolumeClient& volume_;
    const TreeVisitor& visitor_;
    std::set<fskit::FSItemID> entered_;
    bool isComplete_ = true;
};

} // namespace

void forEachEntry(VolumeClient& volume, const ItemRef& directory, const std::string& path,
                  const std::function<void(const DirectoryEntry& entry)>& each) {
    const auto position = std::make_unique<NTFSListPosition>(); // stacks of these get deep
    for (;;) {
        throwIfInterrupted();
        auto page = volume.listSorted(directory, *position);
        if (!page && numberOf(page.error()) == kEIO) {
            return forEachUnsorted(volume, directory, path, each);
        }
        const auto entries = valueOf(std::move(page), path);
        if (entries.empty()) {
            return;
        }
        std::for_each(entries.begin(), entries.end(), each);
        flushNowAndThen();
    }
}

bool visitTree(VolumeClient& volume, const ItemRef& directory, const std::string& path,
               const TreeVisitor& visitor) {
    TreeVisit visit(volume, visitor);
    visit.start(directory, path);
    return visit.isComplete();
}

} // namespace tavelin::cli
