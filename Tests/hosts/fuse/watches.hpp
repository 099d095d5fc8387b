// Waiting for something outside this process to change, instead of for time to pass.
#pragma once

#include "platform/file_descriptor.hpp"

#include <filesystem>

namespace tavelin::test {

// Notes writes to one file from its construction on.
class ChangeWatch {
  public:
    explicit ChangeWatch(const std::filesystem::path& file); // throws std::system_error

    // Returns after a write that no earlier call has answered; false after half a minute without.
    [[nodiscard]] bool await();

  private:
    const FileDescriptor descriptor_;
};

// The same for the table of mounts.
class MountTableWatch {
  public:
    MountTableWatch(); // throws std::system_error

    [[nodiscard]] bool await();

  private:
    const FileDescriptor descriptor_;
};

} // namespace tavelin::test
