/// Waits for a file to change.
#pragma once

#include "hosts/cli/descriptor.hpp"

#include <filesystem>

namespace tavelin::cli {

/// Watches the directory of a file, so that the file may be replaced or made anew. Throws Failure
/// when the directory cannot be watched.
class FileWatch {
  public:
    explicit FileWatch(const std::filesystem::path& file);

    /// Returns once the file has changed since the watch began or since the last wait; sometimes
    /// also without a change.
    void wait();

  private:
    Descriptor notifications_;
};

} // namespace tavelin::cli
