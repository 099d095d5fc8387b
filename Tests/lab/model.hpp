// A plain file system in memory that follows the volume's rules: what every operation must answer
// and what every item must look like afterwards.
//
// Times that an operation sets to "now" are known only as bounds until they have been seen once;
// from then on they must stay as seen.
#pragma once

#include "lab/operation.hpp"

#include <map>

namespace tavelin::test {

// 100 ns units since 1970, rounded as the volume reports them.
using Ticks = std::int64_t;
Ticks nowTicks();

enum class ItemKind { file = 1, directory = 2, symlink = 3 };
enum TimeKind : std::size_t { accessTime, modifyTime, changeTime, birthTime, kTimeKinds };

// Everything that can be observed of one item.
struct ItemState {
    ItemKind kind = ItemKind::file;
    std::uint64_t size = 0; // not compared for directories
    std::uint32_t linkCount = 1;
    bool hidden = false;
    std::array<Ticks, kTimeKinds> times{};
    std::string content{}; // of a file; a link's target
    std::map<std::string, std::string> streams{};
    std::map<std::string, ItemKind> entries{}; // of a directory

    bool operator==(const ItemState&) const = default;
    bool hasSameContent(const ItemState& other) const {
        return kind == other.kind && content == other.content && streams == other.streams;
    }
};

class Model {
  public:
    Model() : Model(false) {}
    explicit Model(bool windowsNames);

    Answer apply(const Operation& op);

    // All items from the directory `from` on, parents before their children.
    Tree tree(const std::string& from = "/") const;

    bool has(const std::string& path) const { return names_.contains(path); }

    // Says how `seen` differs from what the item at `path` must be; empty when it agrees. Takes
    // over times that were known only by their bounds.
    std::string disagreement(const std::string& path, const ItemState& seen);

    struct Time {
        Ticks exact = 0;
        Ticks earliest = 0; // when not `known`: a time from then to now,
        bool known = false;
        bool mayBeOlder = false; // or still the exact one
    };
    struct Node {
        ItemKind kind = ItemKind::file;
        bool hidden = false;
        std::array<Time, kTimeKinds> times{};
        std::string content{};
        std::map<std::string, std::string> streams{};
    };
    // A number for each item by path; names of one file have the same.
    const std::map<std::string, std::size_t>& names() const { return names_; }
    const Node& at(const std::string& path) const { return nodes_.at(names_.at(path)); }
    std::uint32_t countNames(const std::string& path) const;

  private:
    Node& at(const std::string& path) { return nodes_.at(names_.at(path)); }
    std::vector<std::string> below(const std::string& directory) const; // all paths
    // Why there is nothing at a path.
    std::int32_t absence(const std::string& path) const;
    std::int32_t newNameError(const std::string& path) const;
    // Why there cannot be a new item; 0 when there can.
    std::int32_t newItemError(const std::string& path) const;
    Answer make(const Operation& op, ItemKind kind);
    Answer link(const std::string& path, const std::string& name);
    Answer remove(const std::string& path);
    Answer rename(const std::string& from, const std::string& to);
    Answer exchange(const std::string& one, const std::string& other);
    // With all that is below; there is nothing at `to`.
    void move(const std::string& from, const std::string& to);
    void unname(const std::string& name);
    Answer data(const Operation& op, Node& node);
    Answer allocate(const Operation& op, Node& node);
    Answer metadata(const Operation& op, Node& node);
    Answer stream(const Operation& op, Node& node);
    static void touch(Node& node, std::initializer_list<TimeKind> kinds, bool maybe = false);
    void touchDirectoryOf(const std::string& path);

    bool windowsNames_;
    std::map<std::string, std::size_t> names_; // by path; names are compared byte by byte
    std::map<std::size_t, Node> nodes_;
    std::size_t next_ = 0;
};

} // namespace tavelin::test
