// One mount from its beginning to its end.
#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "hosting/module_host.hpp"
#include "hosts/fuse/mount/broker.hpp"
#include "hosts/fuse/mount/commands.hpp"
#include "hosts/fuse/mount/complaint.hpp"
#include "hosts/fuse/mount/daemon.hpp"
#include "hosts/fuse/mount/maintenance_thread.hpp"
#include "hosts/fuse/protocol/cpu_latency_request.hpp"
#include "hosts/fuse/protocol/kernel_channel.hpp"
#include "hosts/fuse/protocol/requests.hpp"
#include "hosts/fuse/protocol/server_identity.hpp"
#include "hosts/fuse/protocol/session_context.hpp"
#include "hosts/fuse/protocol/worker_threads.hpp"
#include "hosts/fuse/sandbox/sandbox.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavelin::fusehost {

namespace fs = std::filesystem;

namespace {

// Fewer do not take turns, more are slower to come back to a warm cache.
constexpr size_t kWorkerThreads = 4;

// For a server that may have left its terminal.
void report(const std::string& what) {
    complain(what);
    log().error(what);
}

// Unmounts at the end whatever ended the serving.
struct Unmount {
    explicit Unmount(Broker& made) : broker(made) {}
    Unmount(const Unmount&) = delete;
    Unmount& operator=(const Unmount&) = delete;
    ~Unmount() {
        if (isGone) {
            return;
        }
        if (const int failed = broker.unmount({.lazily = true, .served = false}); failed != 0) {
            log().error(fmt::format("unmounting: {}", errorText(fromHost(failed))));
        }
    }

    Broker& broker;
    /// The kernel has unmounted it. From then on another mount may have its id and, once the loop
    /// device is free, its source: it can no longer be told from this one.
    std::atomic<bool> isGone = false;
};

// One mount. The members are destroyed in reverse: the session before the volume it serves.
class Mount {
  public:
    Mount(const MountRequest& request, std::shared_ptr<ImageResource> image, Daemon& daemon,
          Broker& broker)
        : request_(request),
          daemon_(daemon),
          broker_(broker),
          host_(std::make_unique<ModuleHost>(std::move(image))) {}

    int run() {
        // Nothing of the volume is read before the sandbox is entered.
        makeSession();
        if (request_.sandbox) {
            giveUpTheRest();
        }
        openVolume();
        if (!connect()) {
            return 1; // the broker or libfuse has said why
        }
        latency_.start();
        WorkerThreads threads(session_.get(), latency_);
        maintenance_.start({.broker = broker_,
                            .directory = request_.directory,
                            .isGone = mount_->isGone,
                            .volume = *volume_,
                            .threads = threads,
                            .session = session_.get()});
        const int failed = threads.run(kWorkerThreads);
        if (failed != 0) {
            report(fmt::format("{}: {}", request_.directory.string(), errorText(fromHost(failed))));
        }
        maintenance_.stop();
        mount_.reset();
        session_.reset();
        close();
        if (request_.trace) {
            std::fprintf(stderr, "%s\n", channel_.summary().c_str());
        }
        return failed != 0 || lost_ ? 1 : 0;
    }

  private:
    // A session without a mount yet.
    void makeSession() {
        std::string program = "tavelin";
        char* words[] = {program.data(), nullptr};
        Arguments arguments(words);
        session_.reset(
            fuse_session_new(&arguments, &requestTable(), sizeof(fuse_lowlevel_ops), &context_));
        if (!session_) {
            throw std::bad_alloc();
        }
    }

    void giveUpTheRest() {
        const std::string missing = enterSandbox(broker_.witness()).shortcomings();
        if (!missing.empty()) {
            events().event("sandbox", {{"ok", false}, {"why", missing}});
            log().info(fmt::format("{}: {}", request_.image.string(), missing));
        }
    }

    void openVolume() {
        std::vector<std::string> words;
        if (!request_.volumeOptions.empty()) {
            words = {"-o", joined(request_.volumeOptions)};
        }
        host_->open(words);
        sayWhatIsDifferent();
        if (request_.permissions) {
            const Ownership& others = context_.ownership;
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
        context_.volume = &volume_.emplace(host_->volume());
        if (!host_->volume().isReadOnly()) {
            volume_->orphanFiles().cleanUp();
        }
    }

    // Where the volume could not be opened as was asked.
    void sayWhatIsDifferent() const {
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
    }

    static Ownership ownershipOf(const MountRequest& request) {
        return {.user = request.user.value_or(::getuid()),
                .group = request.group.value_or(::getgid()),
                .fileMask = request.fileMask.value_or(0),
                .directoryMask = request.directoryMask.value_or(0)};
    }

    bool connect() {
        if (::geteuid() == 0) { // else the kernel mounts no device
            host_->resource().admitMount();
        }
        std::vector<FileDescriptor> opened = broker_.mount(host_->volume().isReadOnly());
        if (opened.empty()) {
            return false;
        }
        if (opened.size() > 1) {
            loop_ = std::move(opened[1]);
        }
        mount_.emplace(broker_);
        return KernelChannel::attach(session_.get(), opened[0]) == 0;
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
    Broker& broker_;
    KernelChannel channel_{request_.trace, request_.permissions};
    MaintenanceThread maintenance_;
    CpuLatencyRequest latency_{request_.lowLatency};
    const std::unique_ptr<ModuleHost> host_;
    std::optional<MountedVolume> volume_;
    SessionContext context_{.channel = channel_,
                            .volume = nullptr,
                            .server = serverIdentity(),
                            .ownership = ownershipOf(request_),
                            .keepsOwners = request_.permissions,
                            .streams = request_.streams,
                            .gathersWrites = request_.writeback,
                            .isEnding = [this] { return fuse_session_exited(session_.get()) != 0; },
                            .served = [this] { serve(); },
                            .unmounted = [this] { takeLeave(); }};
    FileDescriptor loop_; // the device under the mount, where an image has one
    Session session_;
    std::optional<Unmount> mount_; // after session_: unmounting may need answers no longer, only
                                   // the descriptor that session_ owns
    bool closed_ = false;
    bool lost_ = false;
};

// A server reads nothing that is typed, also not by way of a terminal that it prints on.
void giveUpInput() {
    const FileDescriptor nothing("/dev/null", O_RDONLY);
    if (!nothing || ::dup2(nothing.get(), STDIN_FILENO) == -1) {
        throw std::system_error(errno, std::generic_category(), "/dev/null");
    }
    for (const int printing : {STDOUT_FILENO, STDERR_FILENO}) {
        if (::isatty(printing) == 1) {
            const std::string same = fmt::format("/proc/self/fd/{}", printing);
            const FileDescriptor writing(same.c_str(), O_WRONLY | O_NOCTTY);
            if (writing) { // else another user's, as under su(1): kept as it is
                ::dup2(writing.get(), printing);
            }
        }
    }
}

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
        giveUpInput();
        auto image = std::make_shared<ImageResource>(
            absolute.image, ImageResource::Settings{.readOnly = absolute.readOnly});
        Broker broker(absolute, image->descriptor());
        return Mount(absolute, std::move(image), daemon, broker).run();
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
