/// The requests to an active volume, in the words of a host.
#pragma once

#include "fskit/item_ref.hpp"
#include "fskit/tavelin_volume.hpp"
#include "hosting/entry_packer.hpp"
#include "platform/assert.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavelin {

/// An item together with its attributes.
struct Found {
    ItemRef item;
    fskit::FSItemAttributes attributes;
    std::string name{}; ///< as it is stored; empty where the item was not found by one
};

/// Sends requests to one volume as FSKit would: each item handed out is held by an ItemRef and
/// reclaimed with the last of them, and opens and closes are sent only when the volume wants them.
///
/// Made and owned by a ModuleHost; good from its activation until its close. Any thread may send
/// anything, several at a time, and may hold its own locks: the volume's come after them. Names are
/// single components in UTF-8, offsets and sizes bytes. Errors are those of the volume, in the
/// POSIX domain with macOS numbers as a rule.
class VolumeClient {
  public:
    using Bytes = std::span<const std::byte>;

    /// The volume is loaded and not yet activated.
    explicit VolumeClient(std::shared_ptr<TavelinVolume> volume) : volume_(std::move(volume)) {
        TAVELIN_ASSERT(volume_ != nullptr);
    }
    VolumeClient(const VolumeClient&) = delete;
    VolumeClient& operator=(const VolumeClient&) = delete;

    /// Where relative paths begin, see hosting/paths.hpp: a path from the root, which it is at
    /// first. Not to be set beside requests by path.
    [[nodiscard]] const std::string& workingDirectory() const noexcept { return workingDirectory_; }
    void setWorkingDirectory(std::string path) { workingDirectory_ = std::move(path); }

    // ---- Lookup and attributes -----------------------------------------------------------------

    /// The root directory; held from activation to close.
    [[nodiscard]] const ItemRef& root() const noexcept { return root_; }
    /// The root directory with its attributes at this moment.
    Outcome<Found> rootWithAttributes();
    /// kENOENT when there is no such name.
    Outcome<Found> lookup(const ItemRef& directory, std::string_view name);
    /// The same, absent when there is no such name.
    Outcome<std::optional<Found>> find(const ItemRef& directory, std::string_view name);
    /// The item of an entry that an enumeration of the directory delivered.
    Outcome<Found> describe(const ItemRef& directory, fskit::FSItemID entry);
    /// By a reference, and the directory that an item has a name in, see ExtendedOperations.
    Outcome<Found> itemAt(std::uint64_t reference);
    Outcome<Found> directoryOf(const ItemRef& item);
    Outcome<fskit::FSItemAttributes> attributes(const ItemRef& item);
    /// Applies the valid attributes of `changes`, marks in it which were, and answers the new ones.
    Outcome<fskit::FSItemAttributes> setAttributes(const ItemRef& item,
                                                   fskit::FSItemSetAttributesRequest& changes);
    /// The target as a mount follows it. kEINVAL for an item that is no link.
    Outcome<std::string> readSymbolicLink(const ItemRef& item);

    // ---- Directories ---------------------------------------------------------------------------

    /// Packs the entries from `cookie` on; answers the verifier to go on with. With attributes, "."
    /// and ".." are left out.
    Outcome<fskit::FSDirectoryVerifier> enumerate(const ItemRef& directory,
                                                  fskit::FSDirectoryCookie cookie,
                                                  fskit::FSDirectoryVerifier verifier,
                                                  bool withAttributes,
                                                  fskit::FSDirectoryEntryPacker& packer);
    /// All entries but "." and "..", in the volume's order, page after page.
    Outcome<std::vector<DirectoryEntry>> list(const ItemRef& directory, bool withAttributes,
                                              std::size_t pageBytes = EntryPacker::kDefaultBytes);

    /// The next entries behind a place, by the volume's collation order and with attributes; none
    /// at the end. For directories of any size: see DirectoryReader.
    Outcome<std::vector<DirectoryEntry>> listSorted(const ItemRef& directory,
                                                    NTFSListPosition& position);
    /// The 8.3 alias that goes with a name; empty when there is none.
    Outcome<std::string> shortName(const ItemRef& directory, std::string_view name);

    // ---- Namespace -----------------------------------------------------------------------------

    /// `attributes` are applied as far as they can be; what was is marked.
    Outcome<Found> create(const ItemRef& directory, std::string_view name, fskit::FSItemType type,
                          fskit::FSItemSetAttributesRequest& attributes);
    Outcome<Found> create(const ItemRef& directory, std::string_view name, fskit::FSItemType type);
    /// Makes a link in the form that the mount's options ask for.
    Outcome<Found> createSymbolicLink(const ItemRef& directory, std::string_view name,
                                      std::string_view target,
                                      fskit::FSItemSetAttributesRequest attributes = {});
    /// As FSKit asks for it, which the volume refuses with kENOTSUP.
    Outcome<fskit::FSCreateLinkResult> createLink(const ItemRef& item, const ItemRef& directory,
                                                  std::string_view name);
    /// Gives a file a name of the host's own, see ExtendedOperations.
    Outcome<fskit::FSCreateLinkResult> linkInternal(const ItemRef& item, const ItemRef& directory,
                                                    std::string_view name);
    /// How many names a file has to lose, see ExtendedOperations.
    Outcome<std::size_t> countNames(const ItemRef& item);
    /// `item` is what the name stands for, as for FSKit, which has looked it up before.
    Outcome<fskit::FSRemoveItemResult> remove(const ItemRef& item, const ItemRef& directory,
                                              std::string_view name);
    /// `over` is the item that the new name stands for so far, empty when there is none.
    Outcome<fskit::FSRenameItemResult> rename(const ItemRef& item, const ItemRef& fromDirectory,
                                              std::string_view fromName, const ItemRef& toDirectory,
                                              std::string_view toName, const ItemRef& over);

    // ---- Data ----------------------------------------------------------------------------------

    /// Tells the volume that the item is open in `modes`, unless it wants no such requests.
    Outcome<void> open(const ItemRef& item, fskit::FSVolumeOpenModes modes);
    /// `modes` are those that remain; none for the last close.
    void close(const ItemRef& item, fskit::FSVolumeOpenModes modes);
    /// Answers the bytes read: fewer than `into` holds at the end of the file.
    Outcome<std::size_t> read(const ItemRef& item, std::uint64_t offset, std::span<std::byte> into);
    /// Answers the bytes written: fewer than `contents` has when the volume is full before the end.
    Outcome<std::size_t> write(const ItemRef& item, std::uint64_t offset, Bytes contents);

    // ---- Extended attributes -------------------------------------------------------------------

    /// The whole value, at most 64 MiB.
    Outcome<std::vector<std::byte>> getXattr(const ItemRef& item, std::string_view name);
    /// How many bytes getXattr() would answer, without reading them.
    Outcome<std::size_t> xattrSize(const ItemRef& item, std::string_view name);
    Outcome<void> setXattr(const ItemRef& item, std::string_view name, Bytes value,
                           fskit::FSSetXattrPolicy policy = fskit::FSSetXattrPolicy::alwaysSet);
    /// kENOATTR when there is none of this name.
    Outcome<void> removeXattr(const ItemRef& item, std::string_view name);
    Outcome<std::vector<std::string>> listXattrs(const ItemRef& item);

    // ---- The volume ----------------------------------------------------------------------------

    /// With flags that wait, success means that everything answered before is on the medium.
    Outcome<void> synchronize(fskit::FSSyncFlags flags = fskit::FSSyncFlags::wait);
    /// Free space and counts at this moment.
    [[nodiscard]] fskit::FSStatFSResult statistics() { return volume_->volumeStatistics(); }
    [[nodiscard]] std::string name() const {
        return static_cast<const fskit::FSVolume&>(*volume_).name().data();
    }
    /// Sets the volume's label.
    Outcome<void> setName(std::string_view name);
    /// Whether changes are refused, by request or because the volume allowed no more.
    [[nodiscard]] bool isReadOnly() const;

    /// The volume's requests as they are: for hosts that need no more than one of them, and for
    /// capabilities and limits.
    [[nodiscard]] TavelinVolume& requests() const noexcept { return *volume_; }
    /// Whether opens and closes are withheld, see FSVolumeOpenCloseOperations.
    void setOpenCloseInhibited(bool inhibited) { volume_->setOpenCloseInhibited(inhibited); }
    /// Items handed out and not reclaimed, the root among them.
    [[nodiscard]] std::size_t liveItems() const { return volume_->liveItems(); }

  private:
    // The steps of its life, which are the module host's to take.
    friend class ModuleHost;
    Outcome<void> activate(const fskit::FSTaskOptions& options);
    Outcome<void> mount(const fskit::FSTaskOptions& options);
    void unmount();
    Outcome<void> deactivate();

    /// Takes over the item of an answer, so that it is given back with its last ItemRef.
    Found take(fskit::FSCreateItemResult result);
    Found take(fskit::FSLookupItemResult result);

    const std::shared_ptr<TavelinVolume> volume_;
    ItemRef root_; // after volume_, which it points into
    std::string workingDirectory_ = "/";
};

} // namespace tavelin
