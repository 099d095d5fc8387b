/// Whether the places that a journal's records would replace are still as they were left.
#pragma once

#include "core/journal/journal.hpp"

#include <optional>

namespace tavelin {

/// Finds the first page with a sector that is neither as one of the records found it nor as one
/// left it: another system has written to it. Sectors that cannot be read count as expected, for
/// nothing is lost by replacing them. 0, an error of the device, or ENOMEM.
[[nodiscard]] std::int32_t findForeignPage(BlockDevice& device, const JournaledPages& pages,
                                           std::optional<std::uint64_t>& foreign) noexcept;

} // namespace tavelin
