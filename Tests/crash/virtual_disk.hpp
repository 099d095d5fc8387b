// A volume as a disk that Windows attaches: one partition, in a virtual hard disk (VHD).
#pragma once

#include "support/bytes.hpp"

#include <cstdint>
#include <filesystem>

namespace tavelin::test {

// Where the volume begins in the file, in bytes.
inline constexpr std::uint64_t kPartitionBegin = 1u << 20;

// Writes a disk of fixed size, which is the sectors and a footer behind them; empty parts of it are
// holes. Windows tells disks apart by `number`, which is not 0. The volume is whole sectors and not
// larger than 32 MiB. Throws std::ios_base::failure.
void writeVirtualDisk(const std::filesystem::path& file, std::span<const std::byte> volume,
                      std::uint32_t number);

} // namespace tavelin::test
