/// Directories of the host as copying commands see them. Descriptors stay the caller's. Any thread.
#pragma once

#include "hosts/cli/copy/transfer.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace tavelin::cli {

/// The names in an open directory but "." and "..", sorted, so that the same tree always makes the
/// same volume. `path` names the directory in messages. Throws as throwHostError() does.
[[nodiscard]] std::vector<std::string> namesIn(int directory, const std::string& path);

/// Whether a name is one entry of its directory. A damaged or hostile volume may have names that
/// lead out of a target on the host, which would also cut a name at a null byte.
[[nodiscard]] bool staysInside(std::string_view name) noexcept;

/// Removes an entry of an open directory, with all below it. Links are removed and never followed.
/// Throws as throwHostError() does for the first item that cannot be removed, ItemFailure for the
/// run's image, and Interruption.
void removeHostTree(const CopyRun& run, int directory, const std::string& name,
                    const std::string& path);

/// Returns once everything that was written below a directory of the host is on its medium. One
/// call for the whole file system costs less than one for each of many small files. Throws as
/// throwHostError() does.
void syncHost(int directory, const std::string& path);

} // namespace tavelin::cli
