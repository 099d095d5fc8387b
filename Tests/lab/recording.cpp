#include "lab/recording.hpp"

#include "hosting/module_host.hpp"
#include "lab/host_disk.hpp"
#include "support/replaced_services.hpp"

#include <algorithm>

namespace tavelin::test {

std::string Script::describe() const {
    std::string text;
    for (const Workload* change : changes) {
        text += (text.empty() ? "" : ", ") + change->name;
    }
    switch (finish) {
    case Finish::nothing:
        return text;
    case Finish::synchronise:
        return text + ", each synchronised";
    case Finish::unmount:
        break;
    }
    return text + ", unmounted";
}

Recording recordTavelin(const Bytes& base, const Script& script) {
    ReplacedServices services; // no flush but those of the script
    const auto disk = recordingDisk(base);
    ModuleHost host(disk);
    host.open();
    Recording recording;
    recording.states.push_back(takeSnapshot(host.volume()));
    recording.persistedAt.push_back(0);
    for (const Workload* change : script.changes) {
        try {
            change->run(host.volume());
        } catch (const fskit::Error&) {
            // Some cannot be done twice; then nothing may have changed.
            if (script.changes.size() < 2 || script.changes[0] != script.changes[1]) {
                throw;
            }
        }
        if (script.finish == Finish::nothing) {
            services.timers().tick(); // gathers what has changed
            services.timers().tick(); // flushes it
        } else if (script.finish == Finish::synchronise) {
            host.volume().synchronize().get();
            recording.persistedAt.push_back(disk->events.size());
        }
        recording.states.push_back(takeSnapshot(host.volume()));
    }
    if (script.finish == Finish::unmount) {
        host.close().get();
        recording.persistedAt.resize(recording.states.size(), SIZE_MAX);
        recording.persistedAt.back() = disk->events.size();
    }
    recording.persistedAt.resize(recording.states.size(), SIZE_MAX);
    recording.events = disk->events;
    return recording;
}

Bytes pendingVolume() {
    Bytes base = preparedVolume();
    const auto& all = allChanges();
    std::vector<DiskEvent> events =
        recordTavelin(base, {{&all[0], &all[1]}, Finish::synchronise}).events;
    // What follows the last flush of the disk is the second one's pages, each to its place.
    while (!events.back().flush) {
        events.pop_back();
    }
    std::mt19937_64 unused;
    return afterCut(base, events, events.size(), Cut::prefix, unused);
}

Snapshot contentOf(const Bytes& image) {
    ModuleHost host(std::make_shared<HostDisk>(image));
    host.open();
    return takeSnapshot(host.volume());
}

} // namespace tavelin::test
