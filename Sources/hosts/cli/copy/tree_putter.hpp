/// Copies files and directories from the host into a volume.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "platform/file_descriptor.hpp"

#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace tavelin::cli {

/// Copies contents, times of access and modification, symbolic links (as links), and named streams.
/// A file or link that exists under an item's name on the volume is replaced; directories are
/// merged. Links of the host are never followed. Devices, pipes and sockets are left out.
///
/// Problems of single items go to the run. Failure passes through. One thread at a time; volume and
/// run outlive the object.
class TreePutter {
  public:
    /// Takes the memory of one transfer, which all files share.
    TreePutter(VolumeClient& volume, CopyRun& run)
        : volume_(volume), run_(run), buffer_(kTransferBytes) {}

    /// An item of the host.
    struct Source {
        int directory;    ///< opened directory, the caller's; AT_FDCWD when `name` is a path
        std::string name; ///< in that directory
        std::string path; ///< for messages
    };

    /// Copies `source` into a directory of the volume under the name `name`. Entries of a directory
    /// are copied in the order of their names, so that the same tree always makes the same volume.
    /// False when the item itself was not copied, which is a problem of the run.
    bool put(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    /// Copies the entries of a directory of the host into one of the volume.
    void putContents(const Source& source, const ItemRef& volumeDirectory);
    /// Makes a file from the bytes that a descriptor (a pipe) delivers until its end. Throws
    /// ItemFailure; the descriptor stays the caller's.
    void putStream(int descriptor, const ItemRef& volumeDirectory, const std::string& name);
    /// Makes or replaces a stream of an item from the bytes of a file of the host, "-" for standard
    /// input. Throws ItemFailure, also for more bytes than a stream takes here (64 MiB).
    void putAsStream(const std::string& source, const ItemRef& item, const std::string& stream);
    /// Extended attributes of the host's "user." namespace become named streams. Streams that the
    /// host does not have stay.
    void putStreams(int descriptor, const ItemRef& item, const std::string& path);

    /// Writes an item's content, streams and times while it has its partial name.
    using Fill = std::function<void(const ItemRef& item)>;
    /// Completes an item that has the name `partial`, one of the run's, with `fill`, and renames it
    /// to its own over a file or link of that name. Removes it again when either throws. Throws
    /// ItemFailure and Failure; `path` names the item in messages.
    void install(Outcome<Found> made, const std::string& partial, const ItemRef& volumeDirectory,
                 const std::string& name, const std::string& path, const Fill& fill);

  private:
    // Each throws ItemFailure for its own item, and Failure. Parameters are those of put().

    /// Chooses by the type of the host's item.
    void putItem(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    void putFile(const Source& source, const ItemRef& volumeDirectory, const std::string& name);
    void putLink(const Source& source, const struct ::stat& status, const ItemRef& volumeDirectory,
                 const std::string& name);
    void putDirectory(const Source& source, const ItemRef& volumeDirectory,
                      const std::string& name);
    void putEntries(const FileDescriptor& directory, const Source& source,
                    const ItemRef& volumeDirectory);
    static constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();
    /// Writes up to `length` bytes from where the descriptor stands to `offset` of the file.
    void writeContents(int descriptor, const ItemRef& file, const std::string& path,
                       std::uint64_t offset = 0, std::uint64_t length = kToTheEnd);
    /// The same for a whole file of the host with holes, which the file on the volume then has too.
    void writeSparse(int descriptor, std::uint64_t size, const ItemRef& file,
                     const std::string& path);
    /// Reads until `wanted` bytes are in the buffer, or up to the end. Returns their number.
    [[nodiscard]] std::size_t fillBuffer(int descriptor, std::size_t wanted,
                                         const std::string& path);
    /// Throws ItemFailure for a file that cannot fit, before any of it is copied.
    void refuseTooLarge(std::uint64_t bytes, const std::string& path);
    /// Sets the times of `status`, and records the item in made_. It is an item's last step before
    /// its name, because every write would change the times again.
    void setTimes(const struct ::stat& status, const ItemRef& item, const std::string& path);
    /// Renames the complete item over what has its name.
    void giveName(const ItemRef& item, const std::string& partial, const ItemRef& volumeDirectory,
                  const std::string& name, const std::string& path);
    /// Removes an incomplete item; a failure is a problem, as the error that led here comes first.
    void takeAway(const ItemRef& item, const std::string& partial, const ItemRef& volumeDirectory);
    /// The directory of this name on the volume, made when it is missing.
    [[nodiscard]] ItemRef targetDirectory(const ItemRef& volumeDirectory, const std::string& name,
                                          const std::string& path);
    /// Throws ItemFailure when this run has copied the item `there`. Two names of the host that
    /// differ only in case are one name on the volume, and must not replace each other.
    void refuseOwn(const fskit::FSItemAttributes& there, const std::string& path) const;

    VolumeClient& volume_;
    CopyRun& run_;
    std::vector<std::byte> buffer_;
    std::set<fskit::FSItemID> made_; ///< items that this run copied
    int depth_ = 0;                  ///< directories being copied
};

} // namespace tavelin::cli
