#include "crash/power_cut.hpp"

#include "crash/independent_check.hpp"
#include "hosting/module_host.hpp"
#include "support/replaced_services.hpp"
#include "support/structural_check.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace tavelin::test {

namespace {

// The volume after one cut, against what was persisted by then.
class CrashOracle {
  public:
    CrashOracle(const Script& script, const Recording& recording, std::size_t end)
        : recording_(recording) {
        for (std::size_t i = 0; i < recording.states.size(); i++) {
            if (recording.persistedAt[i] <= end) {
                persistedState_ = i;
            }
        }
        for (std::size_t i = persistedState_; i < script.changes.size(); i++) {
            const Workload& pending = *script.changes[i];
            touched_.insert(pending.touches.begin(), pending.touches.end());
            moves_.insert(moves_.end(), pending.moves.begin(), pending.moves.end());
        }
    }

    struct Finding {
        Fault fault;
        std::string what;
    };

    // The structural check looks at every image, as it is once the next mount has ended. Other
    // programs are slow: `check` is absent when they are not to be asked.
    std::vector<Finding> examine(Bytes image, const IndependentCheck* check) {
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
        host.close().get();
        const auto* const bytes = reinterpret_cast<const std::uint8_t*>(disk->image().data());
        if (const std::string complaints =
                structuralComplaints({bytes, bytes + disk->image().size()});
            !complaints.empty()) {
            findings_.push_back({Fault::inconsistent, complaints});
        }
        if (check != nullptr) {
            if (const std::string complaint = check->complaintAbout(disk->image());
                !complaint.empty()) {
                findings_.push_back({Fault::inconsistent, complaint});
            }
        }
        return std::move(findings_);
    }

    std::uint64_t persisted() const { return persisted_; }
    bool wasCompleted() const { return wasCompleted_; }

  private:
    bool changesIn(const std::string& directory) const {
        return std::any_of(touched_.begin(), touched_.end(), [&](const std::string& path) {
            return directory.empty() || path.starts_with(directory + "/");
        });
    }

    bool changesBeside(const std::string& path) const {
        const std::size_t slash = path.rfind('/');
        const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
        return std::any_of(touched_.begin(), touched_.end(), [&](const std::string& other) {
            return other.starts_with(directory) &&
                   other.find('/', directory.size()) == std::string::npos;
        });
    }

    void compareReadable(const Snapshot& found) {
        for (const auto& [path, why] : found.unreadable) {
            const Fault fault = touched_.contains(path) ? Fault::noFile
                                : changesIn(path)       ? Fault::noDirectory
                                : changesBeside(path)   ? Fault::halfDirectory
                                                        : Fault::unreadable;
            findings_.push_back({fault, path + ": " + why});
        }
    }

    void compare(const Snapshot& found) {
        for (const auto& [path, entry] : recording_.states[persistedState_].entries) {
            const auto now = found.entries.find(path);
            const bool touched = touched_.contains(path);
            if (found.isHidden(path)) {
                continue;
            }
            persisted_++;
            if (now == found.entries.end()) {
                if (!touched && changesBeside(path)) {
                    findings_.push_back({Fault::halfDirectory, path});
                } else if (!touched || !mayBeAbsent(path, found)) {
                    findings_.push_back({Fault::lost, path});
                }
            } else if (!touched && !(entry == now->second)) {
                findings_.push_back({Fault::damaged, path});
            }
        }
        for (const auto& [path, entry] : found.entries) {
            if (found.isHidden(path)) {
                continue;
            }
            const bool known = recording_.states[persistedState_].entries.contains(path);
            if (touched_.contains(path)) {
                const bool isOthers = std::any_of(
                    touched_.begin(), touched_.end(),
                    [&, &shown = entry](const auto& other) { return wasThere(other, shown); });
                if (!wasThere(path, entry) && isOthers) {
                    findings_.push_back({Fault::exchanged, path});
                }
            } else if (!known) {
                findings_.push_back({Fault::unexpected, path});
            }
        }
        for (const auto& [from, to] : moves_) {
            const bool was = recording_.states[persistedState_].entries.contains(from);
            if (was && !found.entries.contains(from) && !found.entries.contains(to) &&
                !found.isHidden(from) && !found.isHidden(to)) {
                findings_.push_back({Fault::moved, from + " on its way to " + to});
            }
        }
        if (!atSomeMoment([&](const Snapshot& state) { return state.label == found.label; })) {
            findings_.push_back({Fault::damaged, "label"});
        }
        if (!atSomeMoment([&](const Snapshot& state) { return state == found; })) {
            findings_.push_back({Fault::notAtomic, "the volume"});
        }
    }

    bool mayBeAbsent(const std::string& path, const Snapshot& found) const {
        const auto isAbsent = [&](const Snapshot& state) { return !state.entries.contains(path); };
        // A rename over a file takes the old one away before the new one comes.
        const auto isReplaced = [&](const auto& move) {
            return move.second == path && found.entries.contains(move.first);
        };
        return atSomeMoment(isAbsent) || std::any_of(moves_.begin(), moves_.end(), isReplaced);
    }

    template<class Predicate>
    bool atSomeMoment(Predicate predicate) const {
        return std::any_of(recording_.states.begin() + static_cast<std::ptrdiff_t>(persistedState_),
                           recording_.states.end(), predicate);
    }

    bool wasThere(const std::string& path, const SnapshotEntry& entry) const {
        return atSomeMoment([&](const Snapshot& state) {
            const auto at = state.entries.find(path);
            return at != state.entries.end() && at->second.sameContent(entry);
        });
    }

    const Recording& recording_;
    std::size_t persistedState_ = 0; // index of the state that must be there
    std::set<std::string> touched_;
    std::vector<std::pair<std::string, std::string>> moves_;
    std::vector<Finding> findings_;
    std::uint64_t persisted_ = 0;
    bool wasCompleted_ = false;
};

} // namespace

CrashReport tryRecording(const Bytes& base, const Script& script, const Recording& recording,
                         const Cuts& cuts) {
    CrashReport report;
    report.scripts = 1;
    std::mt19937_64 random(cuts.seed);
    static const IndependentCheck check(base);
    const auto tryCut = [&](std::size_t end, Cut cut) {
        CrashOracle oracle(script, recording, end);
        const bool isChecked = cut == Cut::prefix && random() % cuts.imagesPerCheck == 0;
        const auto findings = oracle.examine(afterCut(base, recording.events, end, cut, random),
                                             isChecked ? &check : nullptr);
        const bool isMounted = findings.empty() || findings[0].fault != Fault::notMountable;
        report.checked += isChecked && isMounted ? 1 : 0;
        report.images[cut]++;
        report.completed[cut] += oracle.wasCompleted() ? 1 : 0;
        report.persisted += oracle.persisted();
        std::set<Fault> kinds;
        for (const auto& [fault, what] : findings) {
            report.faults[fault][cut] += kinds.insert(fault).second ? 1 : 0;
            if (fault == Fault::inconsistent) {
                report.complaints[what]++;
            }
            if (report.examples.size() < CrashReport::kExamplesMax) {
                report.examples.push_back(fmt::format(
                    "{}: cut after event {} of {}, {}: {}: {}", script.describe(), end,
                    recording.events.size(), kCutNames.at(cut), kFaultNames.at(fault), what));
            }
        }
    };
    for (std::size_t end = 0; end <= recording.events.size(); end++) {
        const auto& points = recording.persistedAt;
        const bool isPersistencePoint =
            std::find(points.begin(), points.end(), end) != points.end();
        const bool isFlush = end > 0 && recording.events[end - 1].flush;
        if (isFlush && !isPersistencePoint) {
            continue; // the medium is as it was, and so is what must be on it
        }
        report.cutPoints++;
        for (const Cut cut : cuts.kinds) {
            const unsigned times = cut == Cut::reordered ? cuts.reorderings : 1;
            const bool isNew = cut == Cut::dropped  ? isPersistencePoint && end > 0
                               : cut == Cut::prefix ? !isFlush
                                                    : end > 0 && !isFlush;
            for (unsigned i = 0; i < times && isNew; i++) {
                tryCut(end, cut);
            }
        }
    }
    return report;
}

CrashReport tryScript(const Bytes& base, const Script& script, const Cuts& cuts) {
    return tryRecording(base, script, recordTavelin(base, script), cuts);
}

std::vector<Script> allScripts(bool pairs) {
    std::vector<Script> scripts;
    for (const Finish finish : {Finish::nothing, Finish::synchronise, Finish::unmount}) {
        for (const Workload& first : allChanges()) {
            scripts.push_back({{&first}, finish});
            for (const Workload& second : allChanges()) {
                if (pairs) {
                    scripts.push_back({{&first, &second}, finish});
                }
            }
        }
    }
    return scripts;
}

} // namespace tavelin::test
