// The file servers under comparison, and one of them mounted.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>
#include <time.h>
#include <vector>

namespace tavelin::bench {

// What a driver's own documentation recommends for speed.
inline constexpr const char* kDriverOptions = "big_writes,noatime";

enum class Role { ours, before, driver, floor };

struct Server {
    std::string name;
    Role role = Role::driver;
    // The command that serves `store` on `directory` in the foreground. The store is an NTFS image,
    // for the floor a plain directory.
    std::function<std::vector<std::string>(const std::filesystem::path& store,
                                           const std::filesystem::path& directory)>
        command;
};

Server tavelinServer(const std::filesystem::path& program);
// An earlier build of ours, to be compared with the one of today.
Server earlierServer(const std::filesystem::path& program);
Server driverServer(const std::string& program);
Server floorServer(const std::filesystem::path& program);

// A server running as our child from construction to unmount(). Construction returns once the
// directory is served; both it and unmount() throw std::runtime_error when the server fails.
class MountedServer {
  public:
    MountedServer(const Server& server, const std::filesystem::path& store,
                  const std::filesystem::path& directory);
    ~MountedServer(); // unmounts; what fails then was already reported or is of no more use
    MountedServer(const MountedServer&) = delete;
    MountedServer& operator=(const MountedServer&) = delete;

    // Unmounts and waits for the server's end, so that the store holds everything.
    void unmount();
    const std::filesystem::path& directory() const { return directory_; }
    // Counts the processor time of the server, with that of the kernel in its name.
    clockid_t processorClock() const;
    // The same in seconds, at this moment.
    double processorTime() const;
    // The most memory the server has held so far, in bytes.
    uint64_t peakMemory() const;

  private:
    std::string said() const;

    std::string name_;
    std::filesystem::path directory_;
    int output_ = -1; // what the server prints
    pid_t child_ = -1;
};

} // namespace tavelin::bench
