// One mount from its beginning to its end.
#include "diagnostics/log.hpp"
#include "hosting/module_host.hpp"
#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/mount/daemon.hpp"
#include "hosts/fuse/mount/loop_device.hpp"
#include "hosts/fuse/mount/maintenance_thread.hpp"
#include "hosts/fuse/mount/mount_table.hpp"
#include "hosts/fuse/protocol/cpu_latency_request.hpp"
#include "hosts/fuse/protocol/kernel_channel.hpp"
#include "hosts/fuse/protocol/requests.hpp"
#include "hosts/fuse/protocol/session_context.hpp"
#include "hosts/fuse/protocol/worker_threads.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

constexpr size_t kWorkerThreads = 4;

// Whoever was to read it may be gone.
void print(const std::string& line) noexcept {
    std::fprintf(stderr, "%s\n", line.c_str());
}

void complain(std::string_view what) {
    print(fmt::format("tavelin: {}", what));
}

// For a server that may have left its terminal.
void report(const std::string& what) {
    complain(what);
    log().error(what);
}

std::string joined(const std::vector<std::string>& words) {
    std::string list;
    for (const std::string& word : words) {
        list += list.empty() ? word : "," + word;
    }
    return list;
}

// A value inside an option list: its commas and backslashes are not ours.
std::string escaped(const std::string& value) {
    std::string safe;
    for (const char c : value) {
        if (c == ',' || c == '\\') {
            safe += '\\';
        }
        safe += c;
    }
    return safe;
}

// Destroys the session and leaves the mount alone. libfuse's own unmount goes by path, which may
// lead to another mount by now; Mount unmounts by id.
struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
};
using Session = std::unique_ptr<fuse_session, DestroySession>;

// Unmounts at the end whatever ended the serving.
struct Unmount {
    explicit Unmount(MountEntry entry) : mount(std::move(entry)) {}
    Unmount(const Unmount&) = delete;
    Unmount& operator=(const Unmount&) = delete;
    ~Unmount() {
        if (isGone) {
            return;
        }
        if (const int failed = unmount(mount, true); failed != 0) {
            log().error(fmt::format("unmounting: {}", errorText(fromHost(failed))));
        }
    }

    const MountEntry mount;
    /// The kernel has unmounted it. From then on another mount may have its id and, once the loop
    /// device is free, its source: it can no longer be told from this one.
    std::atomic<bool> isGone = false;
};

// One mount. The members are destroyed in reverse: the session before the volume it serves.
class Mount {
  public:
    Mount(const MountRequest& request, Daemon& daemon) : request_(request), daemon_(daemon) {}

    int run() {
        open();
        if (!connect()) {
            return 1; // libfuse has said why
        }
        CpuLatencyRequest latency(request_.lowLatency);
        latency.start();
        WorkerThreads threads(session_.get(), latency);
        maintenance_.start({mount_->mount, mount_->isGone, *volume_, threads, session_.get()});
        const int failed = threads.run(kWorkerThreads);
        if (failed != 0) {
            report(fmt::format("{}: {}", request_.directory.string(), errorText(fromHost(failed))));
        }
        maintenance_.stop();
        mount_.reset();
        session_.reset();
        close();
        if (request_.trace) {
            print(channel_.summary());
        }
        return failed != 0 || lost_ ? 1 : 0;
    }

  private:
    void open() {
        std::vector<std::string> words;
        if (!request_.volumeOptions.empty()) {
            words = {"-o", joined(request_.volumeOptions)};
        }
        ImageResource::Settings settings;
        settings.readOnly = request_.readOnly;
        host_ = ModuleHost::openImage(request_.image, words, settings);
        if (host_->fellBackToReadOnly()) {
            const std::string refusal = host_->refusalToWrite();
            report(fmt::format("{}: {}; mounted read-only", request_.image.string(),
                               refusal.empty() ? "hibernated, shut down by fast start-up or "
                                                 "write-protected"
                                               : refusal));
        } else if (!request_.readOnly && !host_->resource().isWritable()) {
            report(fmt::format("{}: it is write-protected, or you may not write to it; mounted "
                               "read-only",
                               request_.image.string()));
        }
        for (const std::string& notice : host_->notices()) {
            complain(fmt::format("{}: {}", request_.image.string(), notice));
        }
        if (request_.permissions) {
            const Ownership others = ownership();
            host_->volume()
                .requests()
                .keepOwners({.user = others.user,
                             .group = others.group,
                             .fileMask = others.fileMask,
                             .directoryMask = others.directoryMask})
                .get();
        }
        // Without it the mount is only slower at first.
        static_cast<void>(host_->volume().requests().prefaultCache());
        volume_.emplace(host_->volume());
        if (!host_->volume().isReadOnly()) {
            volume_->orphanFiles().cleanUp();
        }
    }

    // What the kernel mounts: the block device itself, or a loop device over the image. Empty where
    // it cannot have one, as only root's mounts can.
    std::string deviceToMount() {
        if (::geteuid() != 0) {
            return {};
        }
        std::error_code unknown;
        if (fs::is_block_file(request_.image, unknown)) {
            host_->resource().admitMount();
            return request_.image;
        }
        loop_ = LoopDevice::attach(request_.image, host_->volume().isReadOnly());
        return loop_ ? loop_->path() : std::string();
    }

    // The options of the kernel's mount.
    std::string mountOptions() {
        const std::string device = deviceToMount();
        std::vector<std::string> options = request_.kernelOptions;
        options.push_back("fsname=" + escaped(device.empty() ? request_.image.string() : device));
        options.emplace_back("subtype=tavelin");
        if (host_->volume().isReadOnly()) {
            options.push_back("ro");
        }
        // Owners and masks are for the kernel to check, and mean nothing while only the mounting
        // user gets in. To let others in is root's to decide.
        const bool owned = request_.user || request_.group || request_.fileMask ||
                           request_.directoryMask || request_.permissions;
        if (owned) {
            options.emplace_back("default_permissions");
        }
        if (request_.allowOther || (owned && ::geteuid() == 0)) {
            options.push_back("allow_other");
        }
        if (!device.empty()) {
            options.insert(options.end(), {"blkdev", "blksize=4096"});
        }
        return joined(options);
    }

    Ownership ownership() const {
        return {.user = request_.user.value_or(::getuid()),
                .group = request_.group.value_or(::getgid()),
                .fileMask = request_.fileMask.value_or(0),
                .directoryMask = request_.directoryMask.value_or(0)};
    }

    bool connect() {
        std::string program = "tavelin", dashO = "-o", options = mountOptions();
        char* words[] = {program.data(), dashO.data(), options.data(), nullptr};
        fuse_args arguments = FUSE_ARGS_INIT(3, words);
        context_.emplace(SessionContext{.channel = channel_,
                                        .volume = *volume_,
                                        .ownership = ownership(),
                                        .keepsOwners = request_.permissions,
                                        .streams = request_.streams,
                                        .served = [this] { serve(); },
                                        .unmounted = [this] { takeLeave(); }});
        session_.reset(
            fuse_session_new(&arguments, &requestTable(), sizeof(fuse_lowlevel_ops), &*context_));
        if (session_ == nullptr ||
            fuse_session_mount(session_.get(), request_.directory.c_str()) != 0) {
            return false;
        }
        // Somebody may have covered or unmounted it already. The latter ends the serving at once.
        const std::optional<MountEntry> mount = findOwnMount(request_.directory);
        mount_.emplace(mount.value_or(MountEntry()));
        return KernelChannel::attach(session_.get()) == 0;
    }

    void serve() {
        if (!daemon_.ready()) {
            // Whoever asked for the mount has given up waiting, say by Ctrl-C. The mount goes as if
            // the signal had come here.
            ::kill(::getpid(), SIGTERM);
        }
    }

    // The kernel sends its last request once nothing of the mount is left.
    void takeLeave() {
        if (mount_) {
            mount_->isGone = true; // before close() frees the loop device
        }
        close();
    }

    // Carries everything to the image and lets go of it. Called when the kernel sends its last
    // request, which it waits for where it can, and once more at the end, for where it cannot.
    void close() {
        if (closed_) {
            return;
        }
        closed_ = true;
        maintenance_.suspend();
        Outcome<void> finished = volume_->finish();
        Outcome<void> closed = host_->close();
        host_->resource().release();
        // The mount holds the loop device until it is gone. Held any longer, the image would not be
        // free again when an unmount returns.
        loop_.reset();
        for (const Outcome<void>& outcome : {std::move(finished), std::move(closed)}) {
            if (!outcome) {
                lost_ = true;
                report(fmt::format("{}: not everything could be written: {}",
                                   request_.image.string(),
                                   outcome.error().localizedDescription()));
            }
        }
    }

    const MountRequest& request_;
    Daemon& daemon_;
    KernelChannel channel_{request_.trace, request_.permissions};
    MaintenanceThread maintenance_;
    std::unique_ptr<ModuleHost> host_;
    std::optional<MountedVolume> volume_;
    std::optional<SessionContext> context_;
    std::unique_ptr<LoopDevice> loop_;
    Session session_;
    std::optional<Unmount> mount_; // after session_: unmounting may need answers no longer, only
                                   // the descriptor that session_ owns
    bool closed_ = false;
    bool lost_ = false;
};

} // namespace

int mountVolume(const MountRequest& request) {
    try {
        MountRequest absolute = request;
        absolute.image = fs::absolute(request.image);
        absolute.directory = fs::canonical(request.directory);
        if (!fs::is_directory(absolute.directory)) {
            complain(fmt::format("{}: not a folder", absolute.directory.string()));
            return 1;
        }
        // A server may outlive whoever started it by months and must hold nothing of theirs open.
        ::close_range(STDERR_FILENO + 1, ~0u, 0);
        Daemon daemon(request.foreground);
        if (daemon.side() == Daemon::Side::caller) {
            return daemon.awaitServer();
        }
        ::signal(SIGPIPE, SIG_IGN); // who listens may leave; the volume is served all the same
        return Mount(absolute, daemon).run();
    } catch (const fs::filesystem_error& failure) {
        if (failure.code() == std::errc::not_connected) {
            complain(fmt::format("{0}: a mount whose server has ended lies on it; 'tavelin umount "
                                 "{0}' takes it away",
                                 failure.path1().string()));
            return 1;
        }
        complain(fmt::format("{}: {}", failure.path1().string(), failure.code().message()));
    } catch (const std::exception& failure) {
        complain(failure.what());
    }
    return 1;
}

} // namespace tavelin::fusehost
