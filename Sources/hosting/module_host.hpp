/// FSKit's part, played in this process: a file-system module over one image, from probe to unload.
///
///     ModuleHost host(std::make_shared<ImageResource>("disk.img"));
///     host.open({"-o", "windows_names"});                   // throws OpenError, which says why
///     VolumeClient& volume = host.volume();
///     ItemRef readme = volume.lookup(volume.root(), "readme.txt").get().item;
///     …
///     host.close().get();                                   // throws fskit::Error
///
/// States and the steps between them; open() and close() take them in this order, tests and tools
/// may take them one by one:
///
///     idle ──load──▶ loaded ──activate──▶ active ──mount──▶ mounted
///      ▲                │◀─deactivate─ (reclaimed) ◀─────unmount─┘
///      └────unload──────┘
///
/// A step out of turn is a fault of the host and stops the process. Several hosts may live in one
/// process, each with a module and a volume of its own.
///
/// The steps are for one thread at a time, and no request may be in flight while unmount,
/// deactivate or unload run; the requests of volume() are for any thread.
///
/// Durability: where a waiting synchronise, unload or close has answered success, everything that
/// was answered before it has reached the medium of the image, beyond the host's caches.
#pragma once

#include "fskit/api/file_system.hpp"
#include "hosting/image_resource.hpp"
#include "hosting/open_error.hpp"
#include "hosting/volume_client.hpp"

#include <memory>
#include <string>
#include <vector>

namespace tavelin {

class ModuleHost {
  public:
    /// Option words as a mount command has them: "-r", "-o", "ro,windows_names", …
    using Options = std::vector<std::string>;

    /// Hosts a TavelinFileSystem.
    explicit ModuleHost(std::shared_ptr<HostResource> resource);
    /// Closes, for the path that did not; a failure is dropped, as nobody is left to hear it.
    ~ModuleHost();
    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    // ---- All steps -----------------------------------------------------------------------------

    /// From idle to mounted. On failure the host is idle again.
    void open(const Options& options = {});
    /// Synchronises, then takes all steps down to idle whatever fails on the way; answers the first
    /// failure. Nothing to do when idle.
    Outcome<void> close();

    /// The image at `path`, opened and mounted; opened for reading only when the options say so.
    [[nodiscard]] static std::unique_ptr<ModuleHost>
    openImage(const std::filesystem::path& path, const Options& options = {},
              ImageResource::Settings settings = {});

    /// The mounted (or at least activated) volume; without one the process stops.
    [[nodiscard]] VolumeClient& volume();
    [[nodiscard]] bool isLoaded() const noexcept { return state_ != State::idle; }
    /// Whether the volume could only be opened for reading although options and image allow more.
    [[nodiscard]] bool fellBackToReadOnly() const { return fellBack_; }
    /// A sentence for the user where a check of the volume was the reason; empty otherwise.
    [[nodiscard]] std::string refusalToWrite() const;
    /// Sentences for the user about the volume's state at the load; empty as a rule.
    [[nodiscard]] std::vector<std::string> notices() const;

    // ---- One step each -------------------------------------------------------------------------

    [[nodiscard]] fskit::FSProbeResult probe();
    /// The module opens the image and makes its volume. Errors are the module's.
    Outcome<void> load(const Options& options);
    /// Hands out the root directory; volume() is there from now on.
    Outcome<void> activate(const Options& options);
    Outcome<void> mount(const Options& options);
    /// The module flushes; a failure is reported by the steps that follow.
    void unmount();
    /// Gives all items back, then deactivates.
    Outcome<void> deactivate();
    /// Ends the use of the image, whatever the result.
    Outcome<void> unload();

    // ---- Maintenance ---------------------------------------------------------------------------

    /// Checks the loaded (or not loaded) volume as asked by the words, "-q", "-n" or "-y"; answers
    /// when the check has ended, with what it or its start failed with.
    Outcome<void> check(const Options& options);

    [[nodiscard]] fskit::FSUnaryFileSystem& module() noexcept { return *module_; }
    [[nodiscard]] HostResource& resource() noexcept { return *resource_; }

  private:
    /// The states of the drawing above, and `unmounted` between unmount and deactivation.
    enum class State { idle, loaded, active, mounted, unmounted };

    /// Stops the process unless the step's turn has come.
    void expect(bool inTurn, const char* step) const;

    const std::shared_ptr<HostResource> resource_;
    const std::unique_ptr<fskit::FSUnaryFileSystem> module_;
    State state_ = State::idle;
    /// Set by a load that asked for writing and could only read.
    bool fellBack_ = false;
    std::unique_ptr<VolumeClient> volume_;
};

} // namespace tavelin
