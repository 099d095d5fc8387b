/// Whether a volume that somebody left in doubt may be written to.
///
/// A host asks before it mounts for writing: a volume marked dirty by another system, or one whose
/// journal could not be replayed, may be damaged where the next write goes. It is checked, within a
/// bound of time, and mounted read-only when data is at risk.
#pragma once

#include "core/block_device.hpp"

#include <chrono>
#include <string>
#include <string_view>

namespace tavelin::check {

/// Whether to mount for writing, and what to tell the user either way.
struct GateVerdict {
    bool mayWrite = true;
    /// What was found and what can be done, in one sentence for the user.
    std::string message;
};

/// Whether the volume's dirty flag is set. False also when that cannot be read: mounting tells.
[[nodiscard]] bool isMarkedDirty(BlockDevice& device);

/// Why only Windows may write to the volume, by its flags, in one sentence for the user; empty when
/// that is not so.
[[nodiscard]] std::string reservation(BlockDevice& device);

/// Checks the volume as the device shows it, replayed already where a journal waits. `reason`
/// completes "The volume …": "is marked dirty". A check that the bound ends early judges by what it
/// has seen. std::bad_alloc when memory runs out.
[[nodiscard]] GateVerdict judgeForWriting(BlockDevice& device, std::string_view reason,
                                          std::chrono::milliseconds bound);

} // namespace tavelin::check
