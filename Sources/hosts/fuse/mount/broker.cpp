#include "hosts/fuse/mount/broker.hpp"

#include "diagnostics/event_log.hpp"
#include "hosts/fuse/mount/broker_process.hpp"
#include "platform/services.hpp"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

// A line that finds no room is dropped: the broker may be waiting for this very server, when its
// log lies on the volume.
bool sendLine(const MessageSocket& lines, broker::Line kind, std::string_view text) {
    return lines.send(std::string(1, static_cast<char>(kind)).append(text), false);
}

// In as many pieces as it takes. The broker drops a line that lacks one.
void sendEvent(const MessageSocket& lines, std::string_view line) {
    constexpr size_t kPieceBytesMax = MessageSocket::kBytesMax - sizeof(broker::Line);
    bool isSent = sendLine(lines, broker::Line::event, line.substr(0, kPieceBytesMax));
    for (size_t at = kPieceBytesMax; isSent && at < line.size(); at += kPieceBytesMax) {
        isSent = sendLine(lines, broker::Line::moreOfEvent, line.substr(at, kPieceBytesMax));
    }
}

// The broker writes each line as this process would have.
class ForwardedLog final : public SystemLog {
  public:
    explicit ForwardedLog(std::shared_ptr<const MessageSocket> lines) : lines_(std::move(lines)) {}

    bool isEnabled(LogLevel /*level*/, std::string_view /*subsystem*/,
                   std::string_view /*category*/) override {
        return true;
    }
    void write(LogLevel level, std::string_view /*subsystem*/, std::string_view /*category*/,
               std::string_view message) noexcept override {
        try {
            sendLine(*lines_, level == LogLevel::kError ? broker::Line::error : broker::Line::info,
                     message);
        } catch (const std::bad_alloc&) {
            // A line that there is no memory for is dropped, as the contract says.
        }
    }

  private:
    const std::shared_ptr<const MessageSocket> lines_;
};

template<typename Message>
std::string_view bytesOf(const Message& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
}

} // namespace

Broker::Broker(const MountRequest& request, int image) {
    auto [ourLines, itsLines] = MessageSocket::makePair();
    auto [ourCalls, itsCalls] = MessageSocket::makePair();
    process_ = ::fork();
    if (process_ == -1) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (process_ == 0) {
        broker::serve(request, image, itsLines, itsCalls);
    }
    lines_ = std::make_shared<const MessageSocket>(std::move(ourLines));
    {
        const MutexLock held(calling_);
        calls_.emplace(std::move(ourCalls));
    }
    Services forwarded = *services();
    forwarded.systemLog = std::make_shared<ForwardedLog>(lines_);
    installServices(std::move(forwarded));
    events().writeBy([lines = lines_](std::string_view line) { sendEvent(*lines, line); });
}

Broker::~Broker() {
    const char goodbye = static_cast<char>(broker::Line::goodbye);
    lines_->send({&goodbye, 1}, true);
    {
        const MutexLock held(calling_);
        calls_.reset();
    }
    (void)uninterrupted([this] { return ::waitpid(process_, nullptr, 0); });
}

int Broker::ask(std::string_view call, std::vector<FileDescriptor>* opened) {
    const MutexLock held(calling_);
    if (!calls_->send(call, true)) {
        return EPIPE;
    }
    MessageSocket::Message answer;
    bool isThere = calls_->receive(answer);
    if (isThere && opened != nullptr && answer.bytes == broker::kOpened) {
        *opened = std::move(answer.descriptors);
        isThere = calls_->receive(answer);
    }
    broker::Result result{.error = EPIPE};
    if (isThere && answer.bytes.size() == sizeof result) {
        std::memcpy(&result, answer.bytes.data(), sizeof result);
    }
    return result.error;
}

std::vector<FileDescriptor> Broker::mount(bool readOnly) {
    std::vector<FileDescriptor> opened;
    const broker::Call call{.kind = broker::Call::Kind::mount, .readOnly = readOnly};
    return ask(bytesOf(call), &opened) == 0 ? std::move(opened) : std::vector<FileDescriptor>();
}

int Broker::unmount(Unmounting how) {
    const broker::Call call{
        .kind = broker::Call::Kind::unmount, .lazily = how.lazily, .served = how.served};
    return ask(bytesOf(call), nullptr);
}

} // namespace tavelin::fusehost
