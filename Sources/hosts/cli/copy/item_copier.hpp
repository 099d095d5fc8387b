/// Copies between the two sides of `sync`: the same calls in both directions.
#pragma once

#include "hosts/cli/copy/content_comparison.hpp"
#include "hosts/cli/copy/sync_trees.hpp"
#include "hosts/cli/copy/tree_getter.hpp"
#include "hosts/cli/copy/tree_putter.hpp"

#include <string>

namespace tavelin::cli {

/// One thread at a time; volume and run outlive it. Each pair of functions is one for each
/// direction, with the source first.
class ItemCopier {
  public:
    ItemCopier(VolumeClient& volume, CopyRun& run)
        : volume_(volume), putter_(volume, run), getter_(volume, run), contents_(volume) {}

    /// Copies a file or link with its streams and times, over what has its name. False for a
    /// problem, which the run knows.
    [[nodiscard]] bool copy(const HostTree::Directory& from, const VolumeTree::Directory& to,
                            const std::string& name);
    [[nodiscard]] bool copy(const VolumeTree::Directory& from, const HostTree::Directory& to,
                            const std::string& name);
    /// Sets the named streams of one directory on the other.
    void copyStreams(const HostTree::Directory& from, const VolumeTree::Directory& to);
    void copyStreams(const VolumeTree::Directory& from, const HostTree::Directory& to);
    /// Whether the two files of this name have the same bytes. Throws ItemFailure.
    [[nodiscard]] bool isSame(const HostTree::Directory& host,
                              const VolumeTree::Directory& directory, const std::string& name);
    [[nodiscard]] bool isSame(const VolumeTree::Directory& directory,
                              const HostTree::Directory& host, const std::string& name);

  private:
    VolumeClient& volume_;
    TreePutter putter_;
    TreeGetter getter_;
    ContentComparison contents_;
};

} // namespace tavelin::cli
