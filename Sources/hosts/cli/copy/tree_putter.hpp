/// Copies files and directories from the host into a volume.
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
class TreePutter {
  public:
    TreePutter(VolumeClient& volume, CopyRun& run)
        : volume_(volume), run_(run), buffer_(kTransferBytes) {}

    /// Something on the host: `name` in an opened directory (AT_FDCWD for a path), and what
    /// messages call it.
    struct Source {
        int directory;
        std::string name;
        std::string path;
    };

    /// Copies `source` into a directory of the volume, under a name of its own.
    void put(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    /// Merges what is in a host's directory into one of the volume.
    void putContents(const Source& source, const ItemRef& volumeDirectory);
    /// Makes a file of what a descriptor, such as a pipe, gives until its end.
    void putStream(int descriptor, const ItemRef& volumeDirectory, const std::string& name);

  private:
    using Fill = std::function<void(const ItemRef& item)>;

    void putItem(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    void putFile(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    void putLink(const Source& source, const struct ::stat& status, const ItemRef& volumeDirectory,
                 const std::string& name);
    void putDirectory(const Source& source, const ItemRef& volumeDirectory,
                      const std::string& name);
    void putEntries(const Descriptor& directory, const Source& source,
                    const ItemRef& volumeDirectory);
    void writeContents(int descriptor, const ItemRef& file, const std::string& path);
    void putStreams(int descriptor, const ItemRef& item, const std::string& path);
    /// The last step of an item: notes it as copied, too.
    void setTimes(const struct ::stat& status, const ItemRef& item, const std::string& path);

    /// Completes an item under its partial name with `fill`, then gives it its own; takes it away
    /// again when that fails.
    void install(Outcome<ItemRef> made, const std::string& partial, const ItemRef& volumeDirectory,
                 const std::string& name, const std::string& path, const Fill& fill);
    void giveName(const ItemRef& item, const std::string& partial, const ItemRef& volumeDirectory,
                  const std::string& name, const std::string& path);
    void takeAway(const ItemRef& item, const std::string& partial, const ItemRef& volumeDirectory);
    [[nodiscard]] ItemRef targetDirectory(const ItemRef& volumeDirectory, const std::string& name,
                                          const std::string& path);
    /// Names that the volume takes for the same (perhaps in another case) must not replace each
    /// other.
    void refuseOwn(const fskit::FSItemAttributes& there, const std::string& path) const;

    VolumeClient& volume_;
    CopyRun& run_;
    std::vector<std::byte> buffer_;
    std::set<fskit::FSItemID> made_; // what this run copied
    int depth_ = 0;
};

} // namespace tavelin::cli
