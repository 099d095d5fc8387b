// A volume mounted by a server process of ours, for one test.
#pragma once

#include "platform/file_descriptor.hpp"
#include "support/driver_mount.hpp"
#include "support/sample_volume.hpp"
#include "support/temp_directory.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace tavelin::test {

// Why nothing can be mounted here; empty when it can.
std::string whyNoMounts();

class ServedVolume {
  public:
    // Mounts with options as after -o. Throws std::runtime_error with what the server said.
    explicit ServedVolume(const std::filesystem::path& image, const std::string& options = {});
    ~ServedVolume(); // unmounts
    ServedVolume(const ServedVolume&) = delete;
    ServedVolume& operator=(const ServedVolume&) = delete;

    const std::filesystem::path& directory() const { return directory_.path(); }
    std::filesystem::path operator/(const std::string& name) const { return directory() / name; }
    pid_t server() const { return server_; }

    // Unmounts and answers the server's exit status; a server ended by a signal is 128 + that.
    int unmount();
    // Waits for the end of a server that has been told to end.
    int awaitEnd();
    // Ends the server as a crash would, and takes the dead mount away.
    void crash();

    // What the server has printed to standard error: with the option "trace", its requests.
    std::string printed() const { return readFile(log_ / "err"); }
    // And what to the system log, which has all of it once the server has ended.
    std::string logged() const { return readFile(log_ / "log"); }

  private:
    TempDirectory directory_, log_;
    pid_t server_ = -1;
};

// An open file or directory; that it opens is expected.
class Descriptor {
  public:
    explicit Descriptor(const std::filesystem::path& path, int flags);

    operator int() const { return file_.get(); }
    std::string read(size_t most = 4096) const; // from the front
    struct stat status() const;

  private:
    FileDescriptor file_;
};

// A fresh sample volume mounted for the test; afterwards it is unmounted, and an independent
// reader has to find the volume sound.
class MountTest : public testing::Test {
  protected:
    static constexpr uint64_t kMiB = 1 << 20;
    using Names = std::vector<std::string>;

    explicit MountTest(uint64_t bytes = 64 * kMiB, std::string options = {})
        : bytes_(bytes), options_(std::move(options)) {}
    void SetUp() override;
    void TearDown() override;

    // Mounts the test's volume anew; with `bytes`, a fresh one of that size.
    void mount(const std::string& options = {});
    void mountFresh(uint64_t bytes, const std::string& options = {});
    // Has the system's own driver mount the volume for `change`, and mounts it anew.
    void changeByDriver(const std::function<void(const DriverMount&)>& change);
    // Such a change: "a long name.txt", with an alias for old programs.
    static void addAliased(const DriverMount& driver);
    // The errno of a call that answers -1, else 0.
    static int errorOf(int result) { return result == -1 ? errno : 0; }
    std::filesystem::path operator/(const std::string& name) const { return *served_ / name; }
    std::string path(const std::string& name) const { return (*this / name).string(); }
    struct stat statusOf(const std::string& name) const;  // of a link, not of its target
    Names names(const std::string& directory = "") const; // sorted
    // Takes all clusters, and with `records` all room for new files too. The size of "large".
    off_t fillVolume(bool records) const;

    std::unique_ptr<SampleVolume> volume_;
    std::unique_ptr<ServedVolume> served_;

  private:
    const uint64_t bytes_;
    const std::string options_;
};

// Checks that the volume's content, now mounted as `served`, is the same after an unmount: in an
// independent check, in a second mount, and through the system's own driver.
void expectToLast(const SampleVolume& volume, std::unique_ptr<ServedVolume>& served);

} // namespace tavelin::test
