/// The volume that a command works on: opening, closing and interruption.
///
/// A command opens its volume once, works on the process's only thread and closes the volume. A
/// changing command that fails closes the volume all the same, so that everything it finished
/// before is on the image.
#pragma once

#include "core/values.hpp"
#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "hosts/cli/failure.hpp"
#include "hosts/cli/image_place.hpp"
#include "hosts/cli/interruption.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavelin::cli {

/// The arguments about the image, common to all commands that open a volume.
struct VolumeArguments {
    std::string image;                ///< path of an image file or a block device
    std::vector<std::string> options; ///< each the list after one -o
    bool readOnly = false;
    bool wait = false; ///< for an image that another program uses
    /// Where the user says that the volume begins in the image.
    std::optional<std::uint64_t> offset;
};

/// The access that a command needs.
/// What decides whether the image is locked for reading or for writing.
enum class Access {
    read,   ///< opens for reading only, so that the image keeps every byte
    change, ///< needs a volume that can be written
};

/// Facts about the volume that no request of VolumeClient answers.
struct VolumeFacts {
    std::string label;        ///< UTF-8; empty when the volume has none
    std::uint64_t serial = 0; ///< of the boot sector
    NTFSIOStats io;           ///< counted since the volume was opened
};

/// The Failure for an OpenError of an image: its reason, and a remedy in parentheses.
[[nodiscard]] Failure openFailure(const OpenError& error, const ImagePlace& place);

/// An open volume. The command calls close(), which reports what could not be written. On a path
/// that fails before, the destructor closes and drops the result. Commands use withVolume(), which
/// does both. One thread at a time.
class Session {
  public:
    /// Opens the image. Throws Failure with a remedy when it cannot be opened, or when `access` is
    /// `change` and it can only be opened for reading; nothing on the image has changed then.
    /// Access::change calls takeInterruptions().
    Session(const VolumeArguments& arguments, Access access);

    /// Valid until close().
    [[nodiscard]] VolumeClient& volume() { return host_->volume(); }
    /// For the few commands that need a step or a fact of the module host.
    [[nodiscard]] ModuleHost& host() { return *host_; }
    /// Where in the image the volume is.
    [[nodiscard]] const ImagePlace& place() const noexcept { return place_; }
    /// Reads label and serial, and copies the counters at this moment. Throws Failure.
    [[nodiscard]] VolumeFacts facts();

    /// Closes the volume. On success everything written is on the image's medium. Throws Failure
    /// otherwise. No other member may be called afterwards.
    void close();

  private:
    /// Warns on standard error when the image is smaller than its volume. Reading goes on, because
    /// the user may want what is left.
    void warnIfCutOff();

    const std::string image_;
    const ImagePlace place_;
    /// Holds the image and the open volume.
    std::unique_ptr<ModuleHost> host_;
};

/// The volume that a shell keeps open for its commands, which then take no IMAGE. At most one in
/// the process, and not owned: session and arguments outlive it.
class StandingVolume {
  public:
    /// With `syncs` each command that changes something ends only when that is on the medium; else
    /// it is so when the session is closed.
    StandingVolume(Session& session, const VolumeArguments& arguments, bool syncs) noexcept;
    ~StandingVolume();
    StandingVolume(const StandingVolume&) = delete;
    StandingVolume& operator=(const StandingVolume&) = delete;

    /// Null outside of shells.
    [[nodiscard]] static StandingVolume* current() noexcept;

    [[nodiscard]] Session& session() noexcept { return session_; }
    [[nodiscard]] const VolumeArguments& arguments() const noexcept { return arguments_; }

    /// To be called before and after the work of a command. They throw Failure: a volume that was
    /// opened for reading is not changed, and a change that does not reach the medium has failed.
    void begin(Access access);
    void end(Access access);

  private:
    Session& session_;
    const VolumeArguments& arguments_;
    const bool syncs_;
};

/// The directory that a command without a path takes: the root, in a shell its working directory.
[[nodiscard]] std::string usualDirectory();

/// Opens the volume, calls `work(session)` and closes; in a shell, works on the open one. Throws
/// Failure when any of that fails. A failure of closing is reported together with one of the
/// work: both may have lost changes.
template<typename Work>
void withVolume(const VolumeArguments& arguments, Access access, Work&& work) {
    if (StandingVolume* const standing = StandingVolume::current()) {
        standing->begin(access);
        try {
            work(standing->session());
        } catch (const Failure&) {
            standing->end(access); // what was finished before stays
            throw;
        }
        standing->end(access);
        return;
    }
    Session session(arguments, access);
    try {
        work(session);
    } catch (const Failure& failure) {
        try {
            session.close();
        } catch (const Failure& closing) {
            const std::string first = failure.what();
            throw Failure(first + (first.empty() ? "" : "; and ") + closing.what());
        }
        throw;
    }
    session.close();
}

} // namespace tavelin::cli
