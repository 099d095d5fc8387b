#include "Benchmarks/crash/findings.hpp"

#include <algorithm>
#include <set>
#include <span>
#include <utility>

namespace tavelin::test {

namespace {

class Comparison {
  public:
    Comparison(const Script& script, const Recording& recording, const PowerCut& power,
               const Snapshot& found)
        : states_(std::span(recording.states).subspan(power.persisted)), found_(found) {
        for (std::size_t i = power.persisted; i < script.changes.size(); i++) {
            const Workload& pending = *script.changes[i];
            touched_.insert(pending.touches.begin(), pending.touches.end());
            for (const Operation& operation : pending.operations) {
                if (operation.verb == Verb::rename) {
                    moves_.emplace(operation.path, operation.text);
                }
            }
        }
    }

    std::map<std::string, std::string> result() && {
        compareReadable();
        comparePersisted();
        compareFound();
        for (const auto& [from, to] : moves_) {
            if (persisted().contains(from) && !isThere(from) && !isThere(to)) {
                add("file being moved has neither name", from + " on its way to " + to);
            }
        }
        if (std::find(states_.begin(), states_.end(), found_) == states_.end()) {
            add(kNotAtomic, difference(states_.front(), found_));
        }
        return std::move(findings_);
    }

  private:
    using Entries = std::map<std::string, ItemState>;

    const Entries& persisted() const { return states_.front().entries; }
    void add(const std::string& fault, const std::string& what) { findings_.emplace(fault, what); }

    // Whether a path is in a directory that could not be listed.
    bool isHidden(const std::string& path) const {
        return std::ranges::any_of(found_.unreadable, [&](const auto& bad) {
            return bad.first.empty() || path == bad.first || path.starts_with(bad.first + "/");
        });
    }

    bool isThere(const std::string& path) const {
        return found_.entries.contains(path) || isHidden(path);
    }

    bool changesIn(const std::string& directory) const {
        return std::ranges::any_of(touched_, [&](const std::string& path) {
            return directory.empty() || path.starts_with(directory + "/");
        });
    }

    bool changesBeside(const std::string& path) const {
        return std::ranges::any_of(touched_, [&](const std::string& other) {
            return directoryOf(other) == directoryOf(path);
        });
    }

    void compareReadable() {
        for (const auto& [path, why] : found_.unreadable) {
            add(touched_.contains(path) ? "name being changed not openable"
                : changesIn(path)       ? "directory being changed not listable"
                : changesBeside(path)   ? "directory being changed lacks entries"
                                        : "anything else unreadable",
                path + ": " + why);
        }
    }

    void comparePersisted() {
        for (const auto& [path, entry] : persisted()) {
            const auto now = found_.entries.find(path);
            const bool touched = touched_.contains(path);
            if (isHidden(path)) {
                continue;
            }
            if (now != found_.entries.end()) {
                if (!touched && entry != now->second && entry.kind != ItemKind::directory) {
                    add("damaged", path);
                }
            } else if (!touched) {
                add(changesBeside(path) ? "directory being changed lacks entries" : "lost", path);
            } else if (!mayBeAbsent(path)) {
                add("lost", path);
            }
        }
    }

    void compareFound() {
        for (const auto& [path, entry] : found_.entries) {
            const auto wasAt = [&, &shown = entry](const std::string& other) {
                return atSomeMoment([&](const Entries& entries) {
                    const auto at = entries.find(other);
                    return at != entries.end() && at->second.hasSameContent(shown);
                });
            };
            if (isHidden(path)) {
                continue;
            }
            if (!touched_.contains(path) && !persisted().contains(path)) {
                add("unexpected", path);
            } else if (touched_.contains(path) && !wasAt(path) &&
                       std::ranges::any_of(touched_, wasAt)) {
                add("name being changed shows another's", path);
            }
        }
    }

    bool mayBeAbsent(const std::string& path) const {
        // A rename over a file takes the old one away before the new one comes.
        return atSomeMoment([&](const Entries& entries) { return !entries.contains(path); }) ||
               std::ranges::any_of(moves_, [&](const auto& move) {
                   return move.second == path && found_.entries.contains(move.first);
               });
    }

    template<class Predicate>
    bool atSomeMoment(Predicate predicate) const {
        return std::ranges::any_of(states_,
                                   [&](const Snapshot& state) { return predicate(state.entries); });
    }

    const std::span<const Snapshot> states_; // from the persisted one on
    const Snapshot& found_;
    std::set<std::string> touched_;
    std::set<std::pair<std::string, std::string>> moves_;
    std::map<std::string, std::string> findings_;
};

} // namespace

std::map<std::string, std::string> findings(const Script& script, const Recording& recording,
                                            const PowerCut& power, const Snapshot& found) {
    return Comparison(script, recording, power, found).result();
}

} // namespace tavelin::test
