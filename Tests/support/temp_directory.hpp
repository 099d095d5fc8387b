// A directory of its own for one test, removed with everything in it.
#pragma once

#include <filesystem>
#include <string>

namespace tavelin::test {

class TempDirectory {
  public:
    // Makes a fresh directory below $TMPDIR (else /tmp). Throws std::system_error when it cannot.
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

// Whole-file helpers; both throw std::runtime_error naming the file.
std::string readFile(const std::filesystem::path& file);
void writeFile(const std::filesystem::path& file, const std::string& content);

} // namespace tavelin::test
