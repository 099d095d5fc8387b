/// The volume that a command works on.
#pragma once

#include "core/values.hpp"
#include "hosting/module_host.hpp"
#include "hosting/paths.hpp"
#include "hosts/cli/failure.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavelin::cli {

/// What the user says about the image; common to all commands that open it.
struct VolumeArguments {
    std::string image;
    std::vector<std::string> options; ///< each the list after one -o
    bool readOnly = false;
};

enum class Access {
    read,   ///< opens for reading only, so that the image keeps every byte
    change, ///< needs a volume that can be written
};

/// What no request of the volume tells.
struct VolumeFacts {
    std::string label;
    std::uint64_t serial = 0;
    NTFSIOStats io;
};

/// What a user reads of an OpenError: the reason and what can be done.
[[nodiscard]] Failure openFailure(const OpenError& error);

/// An open volume. The command closes it, which reports what could not be written; one that fails
/// on the way leaves that to the destructor.
class Session {
  public:
    /// Throws Failure when the image cannot be opened, or only for reading where changes are meant;
    /// it says what to do and nothing on the image has changed.
    Session(const VolumeArguments& arguments, Access access);

    [[nodiscard]] VolumeClient& volume() { return host_->volume(); }
    [[nodiscard]] ModuleHost& host() { return *host_; }
    [[nodiscard]] VolumeFacts facts();

    /// Everything written reaches the image, or Failure.
    void close();

  private:
    void warnIfCutOff();

    const std::string image_;
    std::unique_ptr<ModuleHost> host_;
};

/// Opens, does the work, closes. What fails in closing is told even when the work failed already.
template<typename Work>
void withVolume(const VolumeArguments& arguments, Access access, Work&& work) {
    Session session(arguments, access);
    try {
        work(session);
    } catch (const Failure& failure) {
        try {
            session.close();
        } catch (const Failure& closing) {
            throw Failure(std::string(failure.what()) + "; and " + closing.what());
        }
        throw;
    }
    session.close();
}

/// From now on signals to end (SIGINT, SIGTERM, SIGHUP) only make throwIfInterrupted() throw, and
/// closed pipes are errors. Access::change does it by itself. A second signal ends the process.
void takeInterruptions();

/// Throws Failure once the user has asked to stop: long work calls it often, so that what is half
/// done is taken back and the volume closed properly.
void throwIfInterrupted();

} // namespace tavelin::cli
