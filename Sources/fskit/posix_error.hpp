/// The single funnel through which a failed request becomes the error that the host is given.
#pragma once

#include "fskit/api/error.hpp"

#include <exception>
#include <string_view>

namespace tavelin {

/// Records the failure in the error tally under the operation's bare name (`op` up to its first
/// "(") and returns the host's error for it: the POSIX error of an NTFSError's code, an
/// fskit::Error as it is, and for any other exception (memory, our own bugs) the POSIX error kEIO;
/// the last two are tallied as kEIO. Any thread; never fails.
[[nodiscard]] fskit::Error posixError(const std::exception& error, std::string_view op);
/// The same error, which nobody is given: it is not recorded.
[[nodiscard]] fskit::Error hostError(const std::exception& error);

} // namespace tavelin
