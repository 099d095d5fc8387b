// Where the names in file records and the entries of directories disagree, and where directories
// hang together without the root.
#include "check/private/index_walk.hpp"
#include "check/private/passes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace tavelin::check {
namespace {

using enum FindingClass;

constexpr std::size_t kDoubtfulMax = 100'000; // files looked at one by one
constexpr std::size_t kFindingsMax = 10'000;

class NameResolver {
  public:
    explicit NameResolver(Volume& volume) : volume_(volume) {}

    void run() {
        volume_.table.each(volume_.recordCount(), [&](std::uint64_t number, RecordState& state) {
            // The names of a damaged record are not known: its entries may all be right.
            if (state.names != 0 && !state.has(RecordState::extension) &&
                !state.has(RecordState::damaged)) {
                if (doubtful_.size() < kDoubtfulMax) {
                    doubtful_.push_back(number);
                } else {
                    volume_.reporter.count(nameWithoutEntry);
                }
            }
        });
        if (doubtful_.empty()) {
            return;
        }
        // The sums say which files, not which names. All directories are walked again, and only the
        // entries of those files are looked at. The table visits records in ascending order.
        TAVELIN_ASSERT(std::ranges::is_sorted(doubtful_));
        volume_.beginPhase("names");
        walkDirectories();
        for (const Stray& stray : strays_) {
            volume_.add(entryWithoutName, stray.record, "a name in the file record", "none",
                        stray.path);
        }
        for (const std::uint64_t number : doubtful_) {
            reportNames(number);
        }
    }

  private:
    struct Stray {
        std::uint64_t record = 0;
        std::string path;
    };

    void walkDirectories() {
        volume_.table.each(volume_.recordCount(), [&](std::uint64_t number, RecordState& state) {
            File file;
            if (state.has(RecordState::directory) && volume_.loadFile(number, file)) {
                // What is wrong with the index was reported by the pass over the directories.
                const Reporter::Mute mute(volume_.reporter);
                IndexWalk(volume_, file, "$I30")
                    .run(Collation::fileName, [&](const IndexEntry& entry) { visit(file, entry); });
            }
        });
    }

    void visit(const File& directory, const IndexEntry& entry) {
        const std::uint64_t number = ntb::reference_record(entry.reference());
        const RecordState* const state = volume_.table.find(number);
        FileName name;
        if (state == nullptr || state->sequence != ntb::reference_sequence(entry.reference()) ||
            !std::ranges::binary_search(doubtful_, number) || !parseFileName(entry.key(), name)) {
            return;
        }
        // Entries of one file are often neighbours: its long and its short name.
        if (!file_ || file_->number != number) {
            file_.emplace();
            if (!volume_.loadFile(number, *file_)) {
                file_.reset();
                return;
            }
        }
        TAVELIN_ASSERT(file_ && file_->number == number);
        bool isInRecord = false;
        eachName(*file_, [&](const FileName& own) {
            isInRecord =
                isInRecord || (own.parent() == directory.reference() && own.isSameName(name));
        });
        if (isInRecord) {
            indexed_.emplace(number, name.hash(directory.reference()));
        } else if (strays_.size() < kFindingsMax) {
            strays_.push_back({number, entryPath(volume_, directory.number, name)});
        } else {
            volume_.reporter.count(entryWithoutName);
        }
    }

    template<typename Visit>
    static void eachName(const File& file, Visit&& visit) {
        for (const Attribute& attribute : file.attributes) {
            FileName name;
            if (attribute.type() == ntb::at_file_name && attribute.isResident() &&
                parseFileName(attribute.first.value(), name)) {
                visit(name);
            }
        }
    }

    void reportNames(std::uint64_t number) {
        File file;
        if (!volume_.loadFile(number, file)) {
            return;
        }
        eachName(file, [&](const FileName& name) {
            if (indexed_.contains({number, name.hash(name.parent())})) {
                return;
            }
            // chkdsk can put a name back into the directory that it names; without that the file
            // goes to found.000.
            const std::uint64_t parent = ntb::reference_record(name.parent());
            const RecordState* const state = volume_.table.find(parent);
            const bool isDirectory = state != nullptr && state->has(RecordState::directory) &&
                                     state->sequence == ntb::reference_sequence(name.parent());
            if (!isDirectory) {
                volume_.add(nameParent, number, "a directory in use",
                            fmt::format("record {} with sequence number {} for \"{}\"", parent,
                                        ntb::reference_sequence(name.parent()),
                                        toText(name.name())));
            } else {
                volume_.add(nameWithoutEntry, number, "an index entry",
                            fmt::format("none in directory {}", parent),
                            volume_.reporter.wants(nameWithoutEntry)
                                ? entryPath(volume_, parent, name)
                                : std::string());
            }
        });
    }

    Volume& volume_;
    std::vector<std::uint64_t> doubtful_;                       ///< ascending
    std::set<std::pair<std::uint64_t, std::uint64_t>> indexed_; ///< record, hash of the name
    std::vector<Stray> strays_;
    std::optional<File> file_; ///< the one that was looked at last
};

} // namespace

void resolveNames(Volume& volume) {
    NameResolver(volume).run();
}

void checkReachability(Volume& volume) {
    if (RecordState* const root = volume.table.find(ntb::record_root)) {
        root->set(RecordState::reachesRoot);
    }
    std::vector<RecordState*> way;
    volume.table.each(volume.recordCount(), [&](std::uint64_t number, RecordState& state) {
        if (!state.has(RecordState::directory) || state.has(RecordState::extension)) {
            return;
        }
        // Follows parents until something is known. All passed are then known too, so every record
        // is passed once and the pass takes linear time, however deep the directories are.
        way.clear();
        RecordState* at = &state;
        // A directory whose parent is none has been reported on.
        while (at != nullptr && at->has(RecordState::directory) &&
               !at->has(RecordState::reachesRoot) && !at->has(RecordState::onWalk)) {
            at->set(RecordState::onWalk);
            way.push_back(at);
            at = volume.table.find(at->parent);
        }
        // A way that meets itself never reaches the root. Nothing in the loop can be opened by
        // path.
        if (at != nullptr && at->has(RecordState::onWalk)) {
            volume.add(directoryLoop, number, "a way to the root", "directories in each other");
        }
        for (RecordState* const passed : way) {
            TAVELIN_ASSERT(passed->has(RecordState::onWalk));
            passed->clear(RecordState::onWalk);
            passed->set(RecordState::reachesRoot); // or reported
        }
    });
}

} // namespace tavelin::check
