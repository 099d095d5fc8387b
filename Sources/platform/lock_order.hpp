/// The order in which the locks of one process are taken, from the outside in.
///
/// A thread that holds a lock takes another only if that stands further down here; of one level it
/// holds one at a time. Each mutex that is ever held together with another names its level at its
/// declaration, and clang's analysis (-Wthread-safety-beta) reports a function that goes against
/// the order. It sees what one function takes and what TAVELIN_REQUIRES says is held already, not
/// what callees take: the headers of the owners say what they call under their locks.
///
/// The levels are names for the analysis. Nothing locks them.
#pragma once

#include "platform/mutex.hpp"

namespace tavelin::lock_order {

/// A name that stands for every lock of one level in the annotations.
class TAVELIN_CAPABILITY("level") Level {};

/// Work on orphans in the background, which a mount suspends as a whole.
inline Level maintenance;
/// One directory's listing, and the directory for orphans: held across requests to the volume.
inline Level directories TAVELIN_ACQUIRED_AFTER(maintenance);
/// What a host knows its items by; under it items are released, and nothing else is requested.
inline Level hostTables TAVELIN_ACQUIRED_AFTER(directories);
/// The front end's registry of items, held for moments.
inline Level items TAVELIN_ACQUIRED_AFTER(hostTables);
/// A volume: all calls of the bridge, and so the page cache, the journal and the block device.
inline Level volume TAVELIN_ACQUIRED_AFTER(items);
/// What a device that is given by the host guards itself with.
inline Level devices TAVELIN_ACQUIRED_AFTER(volume);
/// Counters, tallies, logs and the installed services: they call nothing that locks.
inline Level leaves TAVELIN_ACQUIRED_AFTER(devices);

} // namespace tavelin::lock_order
