#include "hosts/fuse/mount/broker_process.hpp"

#include "diagnostics/event_log.hpp"
#include "diagnostics/log.hpp"
#include "hosts/fuse/mount/complaint.hpp"
#include "hosts/fuse/mount/kernel_mount.hpp"
#include "hosts/fuse/sandbox/system_call_filter.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavelin::fusehost::broker {

namespace {

void closeAllBut(std::vector<int> kept) {
    std::ranges::sort(kept);
    unsigned first = STDERR_FILENO + 1;
    for (const int descriptor : kept) {
        const auto next = static_cast<unsigned>(descriptor);
        if (first < next) {
            ::close_range(first, next - 1, 0);
        }
        first = next + 1;
    }
    ::close_range(first, ~0u, 0);
}

// As a server in the background does, once it serves.
void leaveTerminal() {
    const FileDescriptor nothing("/dev/null", O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(nothing.get(), standard);
    }
    (void)!::chdir("/"); // so that no directory stays in use; "/" is always there
}

class Server {
  public:
    Server(const MountRequest& request, FileDescriptor image, const MessageSocket& lines,
           const MessageSocket& calls)
        : request_(request), lines_(lines), calls_(calls), mount_(request, std::move(image)) {}

    // Until the server hangs up.
    void answerCalls() {
        while (calls_.receive(call_)) {
            Call call;
            if (call_.bytes.size() != sizeof call) {
                return;
            }
            std::memcpy(&call, call_.bytes.data(), sizeof call);
            Result result;
            try {
                result.error = answer(call);
            } catch (const std::exception& failure) {
                complain(failure.what());
                result.error = EIO;
            }
            calls_.send({reinterpret_cast<const char*>(&result), sizeof result}, true);
        }
    }

    // Until the server says goodbye, or ends without.
    void writeLines() {
        while (lines_.receive(line_)) {
            const std::string_view text = std::string_view(line_.bytes).substr(1);
            switch (line_.bytes.front()) {
            case static_cast<char>(Line::event):
                event_.emplace();
                [[fallthrough]];
            case static_cast<char>(Line::moreOfEvent):
                asMemoryAllows([&] { addToEvent(text); });
                break;
            case static_cast<char>(Line::info):
                asMemoryAllows([&] { log().info(text); });
                break;
            case static_cast<char>(Line::error):
                asMemoryAllows([&] { log().error(text); });
                break;
            case static_cast<char>(Line::goodbye):
                return;
            case ForbiddenCall::kMark:
                asMemoryAllows([&] { reportForbidden(line_.bytes); });
                return;
            default:
                break; // no server of ours says so
            }
        }
        asMemoryAllows([&] {
            reportEnd("its server has ended without unmounting it", {{"ok", false}});
        });
    }

  private:
    int answer(const Call& call) {
        if (call.kind == Call::Kind::unmount) {
            return mount_.takeAway({.lazily = call.lazily != 0, .served = call.served != 0});
        }
        if (call.kind != Call::Kind::mount) {
            return EINVAL;
        }
        if (std::exchange(isMade_, true)) {
            return EALREADY;
        }
        // Sent ahead of the result, which comes when they are closed here: held any longer, they
        // would keep the device in use after an unmount.
        const std::vector<FileDescriptor> opened =
            mount_.make(call.readOnly != 0 || request_.readOnly);
        calls_.send(kOpened, true, opened);
        if (!opened.empty() && !request_.foreground) {
            leaveTerminal();
        }
        return opened.empty() ? EIO : 0; // and closes
    }

    // A line for which there is no memory is dropped: the mount needs the broker more.
    template<typename Write>
    void asMemoryAllows(Write&& write) {
        try {
            write();
        } catch (const std::bad_alloc&) {
            event_.reset();
        }
    }

    // A line is one line, whoever wrote it, and no longer than the log.
    void addToEvent(std::string_view piece) {
        if (!event_ || event_->size() + piece.size() > EventLog::kDefaultMaxBytes) {
            event_.reset();
            return;
        }
        event_->append(piece);
        if (const size_t end = event_->find('\n'); end != std::string::npos) {
            if (end == event_->size() - 1) {
                events().append(*event_);
            }
            event_.reset();
        }
    }

    void reportForbidden(const std::string& message) {
        ForbiddenCall call;
        if (message.size() == sizeof call) {
            std::memcpy(&call, message.data(), sizeof call);
        }
        const std::string name = systemCallName(call.systemCall);
        reportEnd(fmt::format("its server has made the system call {}, which the sandbox forbids, "
                              "and was ended",
                              name),
                  {{"ok", false}, {"system_call", name}});
    }

    void reportEnd(const std::string& what, Fields fields) {
        fields.insert_or_assign("image", request_.image.string());
        fields.insert_or_assign("directory", request_.directory.string());
        events().event("server_end", fields);
        log().error(fmt::format("{} on {}: {}; 'tavelin umount' takes away what is left",
                                request_.image.string(), request_.directory.string(), what));
    }

    const MountRequest& request_;
    const MessageSocket& lines_;
    const MessageSocket& calls_;
    // The calling thread's alone.
    MessageSocket::Message call_;
    KernelMount mount_;
    bool isMade_ = false;
    // The writing thread's alone.
    MessageSocket::Message line_;
    std::optional<std::string> event_; // what has come of a line; absent when it is to be dropped
};

} // namespace

void serve(const MountRequest& request, int image, const MessageSocket& lines,
           const MessageSocket& calls) {
    // What ends the server by its terminal or by name is meant for the server, which says goodbye.
    ::setsid();
    ::prctl(PR_SET_NAME, "tavelin-broker");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ::signal(signal, SIG_IGN);
    }
    int status = 0;
    try {
        closeAllBut({image, lines.descriptor(), calls.descriptor()});
        Server server(request, FileDescriptor(image), lines, calls);
        // A log line may come while an unmount waits, and the unmount for who wrote it.
        std::thread calling([&server] { server.answerCalls(); });
        server.writeLines();
        calling.join();
    } catch (const std::exception&) {
        status = 1; // no thread or no memory: the server's first call meets a closed socket
    }
    ::_exit(status);
}

} // namespace tavelin::fusehost::broker
