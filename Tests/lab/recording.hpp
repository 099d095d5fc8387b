// A script as it ran: what the disk saw, and what the volume held in between.
#pragma once

#include "lab/cut.hpp"
#include "lab/snapshot.hpp"
#include "lab/workload.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace tavelin::test {

enum class Finish {
    nothing,     // nothing was asked to be kept; the timer flushes after each change
    synchronise, // after each change
    unmount,     // at the end
};

struct Script {
    std::vector<const Workload*> changes;
    Finish finish = Finish::nothing;

    std::string describe() const;
};

struct Recording {
    std::vector<DiskEvent> events;
    std::vector<Snapshot> states;         // before the first change, then after each
    std::vector<std::size_t> persistedAt; // events after which states[i] is persisted
};

// `base` is preparedVolume().
Recording recordTavelin(const Bytes& base, const Script& script);

// preparedVolume() as a cut leaves it when two flushes are in the journal and the second one is
// nowhere else. The first of allChanges() were flushed.
Bytes pendingVolume();

// What a volume holds, opened for this.
Snapshot contentOf(const Bytes& image);

} // namespace tavelin::test
