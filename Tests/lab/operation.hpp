// One request of a random run, as plain data, so that a failing run can be shrunk and printed.
#pragma once

#include "platform/error_numbers.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::test {

enum class Verb {
    create,    // path, hidden (number 0/1), initial size (other)
    mkdir,     // path
    symlink,   // path, text: target
    remove,    // path
    rename,    // path, text: new path
    link,      // path, text: one more path
    exchange,  // path, text: the other path
    lookup,    // path
    readlink,  // path
    write,     // path, number: offset, other: length, seed
    read,      // path, number: offset, other: length
    truncate,  // path, number: size
    allocate,  // path, number: offset, other: length, seed: which NTFSAllocation
    times,     // path, number: seconds, other: nanoseconds, seed: which, bits of TimeKind
    hide,      // path, number 0/1
    setStream, // path, text: name, number: FSKit policy (3 deletes), other: length, seed
    getStream, // path, text: name
    sync,      //
    trim,      // tells the device what is free
    reload,    // close the volume and open it again
    cut,       // synchronise, and open what a power cut leaves
};

struct Operation {
    Verb verb{};
    std::string path{};
    std::string text{};
    std::int64_t number = 0;
    std::int64_t other = 0;
    std::uint64_t seed = 0;
};

using Operations = std::vector<Operation>;

// One line per operation: verb, path, text, number, other, seed.
std::string toText(const Operations& script);
// Throws std::runtime_error for what is no such text.
Operations fromText(const std::string& text);

// The bytes a write or a stream of this seed and length carries.
std::string pattern(std::uint64_t seed, std::int64_t length);

// What one operation answered: 0 or the error number, and the bytes, target or type it read.
struct Answer {
    std::int32_t error = 0;
    std::string data{};
    bool operator==(const Answer&) const = default;
};

// The directory part and the last name of a path: "/a/b" gives "/a" and "b", "/a" "/" and "a".
std::string directoryOf(const std::string& path);
std::string nameOf(const std::string& path);

// What there is for an operation to work on: paths, that of the directory with all others first.
struct Tree {
    std::vector<std::string> items;
    std::vector<std::string> directories;
};

// Makes random operations on a tree: mostly on items that are there, with names few enough to
// collide.
class OperationSource {
  public:
    explicit OperationSource(std::uint64_t seed) : random_(seed) {}
    Operation next(const Tree& tree);

  private:
    std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
    std::string newPath(const Tree& tree);
    std::string oldPath(const Tree& tree);
    std::int64_t length();

    std::mt19937_64 random_;
};

} // namespace tavelin::test
