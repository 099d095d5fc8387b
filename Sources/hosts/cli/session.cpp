#include "hosts/cli/session.hpp"

#include "core/driver2/mount_options.hpp"
#include "diagnostics/event_log.hpp"
#include "hosting/image_use.hpp"
#include "hosts/cli/terminal.hpp"
#include "hosts/cli/text.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"

#include <fmt/format.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <utility>

namespace tavelin::cli {
namespace {

/// The option words that the module parses, as a mount command passes them.
ModuleHost::Options optionWords(const VolumeArguments& arguments, Access access) {
    ModuleHost::Options words;
    if (arguments.readOnly || access == Access::read) {
        words.emplace_back("-r");
    }
    for (const std::string& list : arguments.options) {
        words.insert(words.end(), {"-o", list});
    }
    return words;
}

/// "; process 1234 (tavelin) has it open" for each that this user may see, at most three.
std::string usersOf(const std::string& path) {
    std::string text;
#ifdef __linux__
    namespace fs = std::filesystem;
    constexpr int kToldMax = 3;
    int told = 0;
    std::error_code error;
    const std::string own = std::to_string(getpid());
    const fs::path image = fs::canonical(path, error);
    for (fs::directory_iterator process("/proc", error);
         !error && told < kToldMax && process != fs::directory_iterator();
         process.increment(error)) {
        const std::string number = process->path().filename();
        if (number == own || number.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        // A process may end meanwhile, or belong to somebody else: it is left out.
        std::error_code gone;
        for (fs::directory_iterator file(process->path() / "fd", gone);
             !gone && file != fs::directory_iterator(); file.increment(gone)) {
            std::error_code closed;
            if (fs::read_symlink(*file, closed) == image && !closed) {
                std::string name;
                std::getline(std::ifstream(process->path() / "comm"), name);
                text += fmt::format("; process {} ({}) has it open", number, escaped(name));
                ++told;
                break;
            }
        }
    }
#else
    static_cast<void>(path); // no file tells
#endif
    return text;
}

/// What makes an image that is in use free.
std::string howToFree(const std::string& path) {
    const std::vector<MountEntry> mounts = mountsOf(path);
    return mounts.empty() ? "end the other program first, or --wait for it"
                          : fmt::format("it is mounted on {}: unmount it first",
                                        escaped(mounts.back().directory.string()));
}

/// The remedy for an image that cannot be opened.
std::string advice(const OpenError& error, const ImagePlace& place) {
    // A volume that its image is too short for may fail in several ways.
    if (const std::uint64_t missing = missingBytes(place); missing > 0) {
        return fmt::format("the image was cut off, {} bytes are missing: get a complete copy",
                           missing);
    }
    switch (error.reason()) {
    case OpenError::Reason::notFound:
        return "check the path of the image";
    case OpenError::Reason::permission:
        return "ask its owner for permission, or use sudo";
    case OpenError::Reason::inUse:
        return howToFree(place.path) + usersOf(place.path);
    case OpenError::Reason::notBlockDevice:
        return "name an image file or a block device such as /dev/sdb1";
    case OpenError::Reason::notNTFS:
        return describeForeign(place);
    case OpenError::Reason::ioError:
        return "copy what can still be read from it";
    case OpenError::Reason::refused:
        return "is the image complete? If so, check it with 'chkdsk /f' in Windows";
    }
    return "";
}

std::unique_ptr<ModuleHost> opened(const VolumeArguments& arguments, const ImagePlace& place,
                                   Access access) {
    // Nothing tells when a lock, a mount, a loop device and a writer are all gone.
    constexpr timespec kPause{.tv_sec = 0, .tv_nsec = 200'000'000};
    for (bool isTold = false;;) {
        try {
            return ModuleHost::openImage(place.path, optionWords(arguments, access),
                                         {.offset = place.offset,
                                          .length = place.length,
                                          .bootFromBackup = place.bootFromBackup});
        } catch (const OpenError& error) {
            if (!arguments.wait || error.reason() != OpenError::Reason::inUse) {
                throw openFailure(error, place);
            }
            if (!std::exchange(isTold, true)) {
                complain(fmt::format("{}: waiting until it is free{}", escaped(arguments.image),
                                     usersOf(place.path)));
            }
        }
        nanosleep(&kPause, nullptr); // a signal ends it early
        throwIfInterrupted();
    }
}

/// The reason why a volume is open for reading only, and the remedy. The user's own choice comes
/// first, as it hides the other reasons.
std::string whyReadOnly(ModuleHost& host, const VolumeArguments& arguments,
                        const ImagePlace& place) {
    if (Driver2::MountOptions(optionWords(arguments, Access::change)).readOnly) {
        return "it is open for reading only as you asked: leave out --read-only and -o ro";
    }
    if (place.bootFromBackup) {
        return "its first sector is damaged: on a copy of the image, write the last 512 bytes over "
               "the first";
    }
    if (!host.resource().isWritable()) {
        return "it is write-protected, or you may not write to it: change its permissions or use "
               "sudo";
    }
    if (std::string refusal = host.refusalToWrite(); !refusal.empty()) {
        return refusal;
    }
    if (host.fellBackToReadOnly()) {
        return "Windows is hibernated on it, or was shut down with fast startup, so it was opened "
               "for reading only: start Windows and shut it down with 'shutdown /s /t 0'";
    }
    return "it could only be opened for reading";
}

StandingVolume* theStandingVolume = nullptr;

} // namespace

Failure openFailure(const OpenError& error, const ImagePlace& place) {
    return {fmt::format("{} ({})", escaped(error.what()), advice(error, place)), {}, error.code()};
}

void Session::warnIfCutOff() {
    const HostResource& resource = host_->resource();
    const std::uint64_t there = resource.blockSize() * resource.blockCount();
    const std::uint64_t wanted = volume().statistics().totalBytes;
    if (there < wanted) {
        complain(fmt::format("{}: the image was cut off: its volume has {} bytes, {} of them are "
                             "missing and cannot be read: get a complete copy",
                             escaped(image_), wanted, wanted - there));
    }
}

Session::Session(const VolumeArguments& arguments, Access access)
    : image_(arguments.image), place_(findVolume(arguments.image, arguments.offset)) {
    // A shell's own volume may be changed while another one is read.
    if (theStandingVolume == nullptr) {
        events().holdUntilFailure("check", access == Access::change
                                               ? std::vector<std::string>{"load", "unload"}
                                               : std::vector<std::string>());
    }
    // Before opening, which may already replay the journal.
    if (access == Access::change) {
        takeInterruptions();
    }
    host_ = opened(arguments, place_, access);
    if (access == Access::change && volume().isReadOnly()) {
        throw Failure(fmt::format("{}: nothing was changed, {}", escaped(image_),
                                  whyReadOnly(*host_, arguments, place_)));
    }
    if (place_.bootFromBackup) {
        complain(fmt::format("{}: its first sector is damaged; it is read by the copy in its last "
                             "one",
                             escaped(image_)));
    }
    warnIfCutOff();
}

VolumeFacts Session::facts() {
    TAVELIN_ASSERT(host_ != nullptr && host_->isLoaded());
    ExtendedOperations& requests = volume().requests();
    return {valueOf(requests.label(), image_), requests.serialNumber(),
            valueOf(requests.ioStatistics(), image_)};
}

StandingVolume::StandingVolume(Session& session, const VolumeArguments& arguments,
                               bool syncs) noexcept
    : session_(session), arguments_(arguments), syncs_(syncs) {
    TAVELIN_ASSERT(theStandingVolume == nullptr);
    theStandingVolume = this;
}

StandingVolume::~StandingVolume() {
    theStandingVolume = nullptr;
}

StandingVolume* StandingVolume::current() noexcept {
    return theStandingVolume;
}

void StandingVolume::begin(Access access) {
    if (access == Access::change && session_.volume().isReadOnly()) {
        throw Failure("nothing was changed, the volume is open for reading only");
    }
}

void StandingVolume::end(Access access) {
    if (access == Access::change && syncs_) {
        valueOf(session_.volume().synchronize(), arguments_.image);
    }
}

std::string usualDirectory() {
    return theStandingVolume == nullptr ? "/" : ".";
}

void Session::close() {
    TAVELIN_ASSERT(host_ != nullptr);
    if (auto closed = host_->close(); !closed) {
        throw Failure(fmt::format("{}; not everything that was changed is on the image",
                                  explain(image_, closed.error())));
    }
}

} // namespace tavelin::cli
