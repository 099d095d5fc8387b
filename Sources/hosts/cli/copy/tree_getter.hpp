/// Copies files and directories from a volume to the host.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "hosts/cli/descriptor.hpp"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tavelin::cli {

/// Contents, times of access and change, symbolic links (as links), and named streams. What is
/// there already under a file's or link's name is replaced, directories are merged.
///
/// Never leaves the target: below it, everything is opened relative to its directory, host links
/// are not followed, and names that mean another place ("..", "a/b") are refused.
class TreeGetter {
  public:
    TreeGetter(VolumeClient& volume, CopyRun& run)
        : volume_(volume), run_(run), buffer_(kTransferBytes) {}

    /// Copies `found`, which messages call `path`, into an opened directory under the name `name`.
    void get(const Found& found, const std::string& path, int directory, const std::string& name);
    /// Copies what is in a directory into an opened directory.
    void getContents(const ItemRef& volumeDirectory, const std::string& path, int directory);

  private:
    void getItem(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    void getFile(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    void getLink(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    void getDirectory(const Found& found, const std::string& path, int directory,
                      const std::string& name);
    void getEntries(const ItemRef& volumeDirectory, const std::string& path, int directory);
    void readContents(const Found& found, const std::string& path, int file);
    void getStreams(const ItemRef& item, const std::string& path, int file);

    /// Gives the complete `partial` its name, in place of whatever file or link has it.
    void giveName(int directory, const std::string& partial, const std::string& name,
                  const std::string& path);
    /// Takes `partial` away again when `work` fails.
    void orTakeAway(int directory, const std::string& partial, const std::function<void()>& work);

    VolumeClient& volume_;
    CopyRun& run_;
    std::vector<std::byte> buffer_;
    std::set<fskit::FSItemID> entered_; // a damaged volume's directories may contain themselves
    int depth_ = 0;
};

} // namespace tavelin::cli
