/// Whether the places that a journal's records would replace are still as they were left, and
/// whether the last of these records was written whole.
#pragma once

#include "core/journal/journal.hpp"

#include <optional>

namespace tavelin {

/// Finds the first page with a sector that is neither as one of the records found it nor as one
/// left it: another system has written to it. Sectors that cannot be read count as expected, for
/// nothing is lost by replacing them. 0, an error of the device, or ENOMEM.
[[nodiscard]] std::int32_t findForeignPage(BlockDevice& device, const JournaledPages& pages,
                                           std::optional<std::uint64_t>& foreign) noexcept;

/// Leaves out the last record where the file data that it names is not at home: the power went
/// before the sync that was to carry both. A record whose pages have begun to go home stays, as
/// that begins after the sync: then somebody else has changed the data since, and the record
/// replaces none of it. Sectors that cannot be read count as at home. Results as above.
[[nodiscard]] std::int32_t leaveOutUnfinished(BlockDevice& device, Journal& journal,
                                              JournaledPages& pages) noexcept;

} // namespace tavelin
