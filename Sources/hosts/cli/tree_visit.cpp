#include "hosts/cli/tree_visit.hpp"

#include "hosts/cli/report.hpp"
#include "hosts/cli/text.hpp"
#include "platform/error_numbers.hpp"

#include <set>

namespace tavelin::cli {
namespace {

/// Levels of directories inside each other. Each takes a frame of the stack.
constexpr std::size_t kVisitDepthMax = 2000;

class TreeVisit {
  public:
    TreeVisit(VolumeClient& volume, const TreeVisitor& visitor)
        : volume_(volume), visitor_(visitor) {}

    void below(const ItemRef& directory, const std::string& path, std::size_t depth) {
        throwIfInterrupted();
        const auto entries = valueOf(volume_.list(directory, true), path);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const DirectoryEntry& entry = entries[i];
            const std::string name = joined(path, entry.name);
            auto attributes = entry.attributes.value_or(fskit::FSItemAttributes());
            attributes.setType(entry.type);
            const TreeItem item{name, entry, attributes, directory, depth, i + 1 == entries.size()};
            if (!visitor_.visit(item) || entry.type != fskit::FSItemType::directory) {
                continue;
            }
            if (entered_.insert(entry.itemID).second) {
                enter(item);
            }
            if (visitor_.leave) {
                visitor_.leave(item);
            }
        }
    }

    void start(const ItemRef& directory, const std::string& path) {
        entered_.insert(valueOf(volume_.attributes(directory), path).fileID());
        below(directory, path, 1);
    }

    [[nodiscard]] bool isComplete() const noexcept { return isComplete_; }

  private:
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

bool visitTree(VolumeClient& volume, const ItemRef& directory, const std::string& path,
               const TreeVisitor& visitor) {
    TreeVisit visit(volume, visitor);
    visit.start(directory, path);
    return visit.isComplete();
}

} // namespace tavelin::cli
