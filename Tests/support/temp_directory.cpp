#include "support/temp_directory.hpp"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <stdlib.h>
#include <system_error>

namespace tavelin::test {

TempDirectory::TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavelin-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    path_ = pattern;
}

TempDirectory::~TempDirectory() {
    std::error_code dropped; // a leftover directory must not fail the test that made it
    std::filesystem::remove_all(path_, dropped);
}

std::string readFile(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + file.string());
    }
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::filesystem::path& file, const std::string& content) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

} // namespace tavelin::test
