// Short scripts of system calls on a directory with two names, "a" and "b", in it: what they answer
// and what is there afterwards on a mount is compared with the same on tmpfs.
#pragma once

#include "platform/file_descriptor.hpp"

#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavelin::test {

struct User {
    const char* name;
    uid_t user;
    gid_t group;
    std::vector<gid_t> further;
};

// The directory that a script works in.
struct Parent {
    const char* name;
    mode_t mode;
    uid_t user;
    gid_t group;
};

// Who plays, besides root.
inline constexpr uid_t kOwner = 40001, kOther = 40002;
inline constexpr gid_t kOwnersGroup = 50001, kSharedGroup = 50002, kOthersGroup = 50003;

// Where a script takes place; the calls answer paths.
struct Place {
    std::string directory;
    FileDescriptor heldA = {}, heldB = {}; // what a program has open meanwhile

    std::string at(const char* name) const { return directory + "/" + name; }
    std::string a() const { return at("a"); }
    std::string b() const { return at("b"); }
};

struct Operation {
    enum class Needs { nothing, held };

    const char* name;
    std::function<int(Place&)> run; // answers an errno
    bool isInPairs = true;
    Needs needs = Needs::nothing;
};

struct Script {
    const char* a; // what the names stand for before
    const char* b;
    const Parent* parent;
    mode_t mode; // of "a"
    const User* user;
    std::vector<const Operation*> operations;

    std::string name() const; // by which it is told from all others
    // One operation by itself, of which owners and times are looked at as well.
    bool isSingle() const { return operations.size() == 1; }
};

// All of them: the product of states, operations, directories, modes and users.
std::vector<Script> allScripts();

struct ScriptOutcome {
    std::string answers; // the errors, what became of times, and what is open still
    std::string tree;    // all items: kinds, modes, owners, links, sizes, contents, attributes

    bool operator==(const ScriptOutcome&) const = default;
};

// Runs each script in a directory of its own below `root`, in a process whose ids nobody else has.
std::vector<ScriptOutcome> outcomesOf(std::span<const Script> scripts,
                                      const std::filesystem::path& root);
// What the first `count` scripts have left below `root`, as ScriptOutcome::tree has it.
std::vector<std::string> treesLeft(size_t count, const std::filesystem::path& root);

} // namespace tavelin::test
