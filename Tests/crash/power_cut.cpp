#include "crash/power_cut.hpp"

#include "hosts/module/module_host.hpp"
#include "support/replaced_services.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>

namespace tavelin::test {

namespace {

constexpr std::size_t kMostExamples = 12;

// The volume after one cut, against what was promised by then.
class Judge {
  public:
    Judge(const Script& script, const Recording& recording, std::size_t end)
        : recording_(recording) {
        for (std::size_t i = 0; i < recording.states.size(); i++) {
            if (recording.promisedAt[i] <= end) {
                promised_ = i;
            }
        }
        for (std::size_t i = promised_; i < script.operations.size(); i++) {
            const Operation& pending = *script.operations[i];
            touched_.insert(pending.touches.begin(), pending.touches.end());
            moves_.insert(moves_.end(), pending.moves.begin(), pending.moves.end());
        }
    }

    struct Finding {
        Fault fault;
        std::string what;
    };

    std::vector<Finding> judge(Bytes image) {
        const ReplacedServices services;
        const auto disk = std::make_shared<RecordingResource>(std::move(image));
        ModuleHost host(disk);
        try {
            host.open();
        } catch (const OpenError& error) {
            return {{Fault::notMountable, error.what()}};
        }
        if (host.volume().isReadOnly()) {
            return {{Fault::notMountable, "read-only"}};
        }
        wasCompleted_ = !disk->events().empty();
        const Snapshot found = takeSnapshot(host.volume());
        compareReadable(found);
        compare(found);
        return std::move(findings_);
    }

    std::uint64_t promises() const { return promises_; }
    bool wasCompleted() const { return wasCompleted_; }

  private:
    bool changesIn(const std::string& folder) const {
        return std::any_of(touched_.begin(), touched_.end(), [&](const std::string& path) {
            return folder.empty() || path.starts_with(folder + "/");
        });
    }

    bool changesBeside(const std::string& path) const {
        const std::size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
        return std::any_of(touched_.begin(), touched_.end(), [&](const std::string& other) {
            return other.starts_with(folder) && other.find('/', folder.size()) == std::string::npos;
        });
    }

    void compareReadable(const Snapshot& found) {
        for (const auto& [path, why] : found.unreadable) {
            const Fault fault = touched_.contains(path) ? Fault::noFile
                                : changesIn(path)       ? Fault::noFolder
                                : changesBeside(path)   ? Fault::halfFolder
                                                        : Fault::unreadable;
            findings_.push_back({fault, path + ": " + why});
        }
    }

    void compare(const Snapshot& found) {
        for (const auto& [path, entry] : recording_.states[promised_].entries) {
            const auto now = found.entries.find(path);
            const bool touched = touched_.contains(path);
            if (found.isHidden(path)) {
                continue;
            }
            promises_++;
            if (now == found.entries.end()) {
                if (!touched && changesBeside(path)) {
                    findings_.push_back({Fault::halfFolder, path});
                } else if (!touched || !mayBeAbsent(path, found)) {
                    findings_.push_back({Fault::lost, path});
                }
            } else if (!touched && !same(entry, now->second)) {
                findings_.push_back({Fault::damaged, path});
            }
        }
        for (const auto& [path, entry] : found.entries) {
            if (found.isHidden(path)) {
                continue;
            }
            const bool known = recording_.states[promised_].entries.contains(path);
            if (touched_.contains(path)) {
                if (!isMixture(path, entry)) {
                    const bool isOthers = std::any_of(
                        touched_.begin(), touched_.end(),
                        [&, &shown = entry](const auto& other) { return isMixture(other, shown); });
                    findings_.push_back({isOthers ? Fault::exchanged : Fault::damaged, path});
                }
            } else if (!known) {
                findings_.push_back({Fault::strange, path});
            }
        }
        for (const auto& [from, to] : moves_) {
            const bool was = recording_.states[promised_].entries.contains(from);
            if (was && !found.entries.contains(from) && !found.entries.contains(to) &&
                !found.isHidden(from) && !found.isHidden(to)) {
                findings_.push_back({Fault::moved, from + " on its way to " + to});
            }
        }
    }

    // A folder's own times change with its entries, which are compared instead.
    static bool same(const SnapshotEntry& was, const SnapshotEntry& is) {
        return was.sameContent(is) &&
               (was.type == fskit::FSItemType::directory || was.sameTimes(is));
    }

    bool mayBeAbsent(const std::string& path, const Snapshot& found) const {
        const auto isAbsent = [&](const Snapshot& state) { return !state.entries.contains(path); };
        // A rename over a file takes the old one away before the new one comes.
        const auto isReplaced = [&](const auto& move) {
            return move.second == path && found.entries.contains(move.first);
        };
        return std::any_of(recording_.states.begin() + static_cast<std::ptrdiff_t>(promised_),
                           recording_.states.end(), isAbsent) ||
               std::any_of(moves_.begin(), moves_.end(), isReplaced);
    }

    // Each byte as it was at some moment since the promise, or zero where the file was growing.
    bool isMixture(const std::string& path, const SnapshotEntry& entry) const {
        std::vector<const SnapshotEntry*> moments;
        for (std::size_t i = promised_; i < recording_.states.size(); i++) {
            const auto at = recording_.states[i].entries.find(path);
            if (at != recording_.states[i].entries.end()) {
                if (at->second.sameContent(entry)) {
                    return true;
                }
                moments.push_back(&at->second);
            }
        }
        std::size_t longest = 0;
        for (const SnapshotEntry* moment : moments) {
            longest = std::max(longest, moment->content.size());
        }
        if (moments.empty() || entry.content.size() > longest) {
            return false;
        }
        for (std::size_t i = 0; i < entry.content.size(); i++) {
            const auto hadIt = [&](const SnapshotEntry* moment) {
                return i < moment->content.size() && moment->content[i] == entry.content[i];
            };
            if (entry.content[i] != std::byte{0} &&
                std::none_of(moments.begin(), moments.end(), hadIt)) {
                return false;
            }
        }
        return true;
    }

    const Recording& recording_;
    std::size_t promised_ = 0; // index of the state that must be there
    std::set<std::string> touched_;
    std::vector<std::pair<std::string, std::string>> moves_;
    std::vector<Finding> findings_;
    std::uint64_t promises_ = 0;
    bool wasCompleted_ = false;
};

} // namespace

const char* cutName(Cut cut) {
    switch (cut) {
    case Cut::prefix:
        return "in order";
    case Cut::torn:
        return "torn at 512";
    case Cut::tornPages:
        return "torn at 4096";
    case Cut::reordered:
        break;
    }
    return "reordered";
}

const char* faultName(Fault fault) {
    switch (fault) {
    case Fault::notMountable:
        return "not mountable";
    case Fault::noFolder:
        return "folder being changed not listable";
    case Fault::halfFolder:
        return "folder being changed lacks entries";
    case Fault::noFile:
        return "name being changed not openable";
    case Fault::exchanged:
        return "name being changed shows another's";
    case Fault::moved:
        return "file being moved has neither name";
    case Fault::unreadable:
        return "anything else unreadable";
    case Fault::lost:
        return "lost";
    case Fault::damaged:
        return "damaged";
    case Fault::strange:
        break;
    }
    return "strange";
}

std::uint64_t Verdict::count(Fault fault) const {
    std::uint64_t sum = 0;
    for (const auto& [cut, counts] : faults) {
        const auto at = counts.find(fault);
        sum += at == counts.end() ? 0 : at->second;
    }
    return sum;
}

void Verdict::add(const Verdict& other) {
    scripts += other.scripts;
    cutPoints += other.cutPoints;
    promises += other.promises;
    for (const auto& [cut, number] : other.images) {
        images[cut] += number;
    }
    for (const auto& [cut, number] : other.completed) {
        completed[cut] += number;
    }
    for (const auto& [cut, counts] : other.faults) {
        for (const auto& [fault, number] : counts) {
            faults[cut][fault] += number;
        }
    }
    for (const std::string& example : other.examples) {
        if (examples.size() < kMostExamples) {
            examples.push_back(example);
        }
    }
}

Verdict tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                     const Cuts& cuts) {
    Verdict verdict;
    verdict.scripts = 1;
    std::mt19937_64 random(cuts.seed);
    const auto tryCut = [&](std::size_t end, Cut cut) {
        Judge judge(script, recording, end);
        const auto findings = judge.judge(afterCut(base, recording.events, end, cut, random));
        verdict.images[cut]++;
        verdict.completed[cut] += judge.wasCompleted() ? 1 : 0;
        verdict.promises += judge.promises();
        std::set<Fault> kinds;
        for (const auto& [fault, what] : findings) {
            verdict.faults[cut][fault] += kinds.insert(fault).second ? 1 : 0;
            if (verdict.examples.size() < kMostExamples) {
                verdict.examples.push_back(
                    fmt::format("{}: cut after event {} of {}, {}: {}: {}", script.describe(), end,
                                recording.events.size(), cutName(cut), faultName(fault), what));
            }
        }
    };
    for (std::size_t end = 0; end <= recording.events.size(); end++) {
        if (end > 0 && recording.events[end - 1].flush) {
            continue; // the medium is as it was
        }
        verdict.cutPoints++;
        for (const Cut cut : cuts.kinds) {
            const unsigned times = cut == Cut::reordered ? cuts.reorderings : 1;
            for (unsigned i = 0; i < times && (end > 0 || cut == Cut::prefix); i++) {
                tryCut(end, cut);
            }
        }
    }
    return verdict;
}

Verdict tryScript(const Bytes& base, const Script& script, const Cuts& cuts) {
    return tryRecording(base, script, recordTavelin(base, script), cuts);
}

std::vector<Script> allScripts(bool pairs) {
    std::vector<Script> scripts;
    for (const Finish finish : {Finish::nothing, Finish::synchronise, Finish::unmount}) {
        for (const Operation& first : allOperations()) {
            scripts.push_back({{&first}, finish});
            for (const Operation& second : allOperations()) {
                if (pairs && &second != &first) {
                    scripts.push_back({{&first, &second}, finish});
                }
            }
        }
    }
    return scripts;
}

} // namespace tavelin::test
