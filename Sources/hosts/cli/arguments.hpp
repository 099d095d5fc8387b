/// What a command takes, declared to its parser.
///
/// The parser's own headers cost more time to compile than all of a command, so that they are
/// included here only by name. Each function binds a variable that outlives the parser; it has its
/// value when the command's work runs. `names` are written as in "-q,--quiet".
#pragma once

#include "hosts/cli/session.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace tavelin::cli {

/// IMAGE, -o and --read-only.
void addVolume(CLI::App& command, VolumeArguments& arguments);
void addJSON(CLI::App& command, bool& json);

/// A positional argument that must be there.
void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& description);
/// The same, being one of a few words.
void addChoice(CLI::App& command, const std::string& name, std::string& value,
               const std::vector<std::string>& choices, const std::string& description);
/// A positional argument that may be left out.
void addArgument(CLI::App& command, const std::string& name, std::optional<std::string>& value,
                 const std::string& description);
/// The positional arguments after IMAGE; from `least` to `most` of them.
void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              int least, const std::string& description, std::optional<int> most = std::nullopt);

void addFlag(CLI::App& command, const std::string& names, bool& value,
             const std::string& description);
/// A flag that only goes together with `other`.
void addFlagWith(CLI::App& command, const std::string& other, const std::string& names, bool& value,
                 const std::string& description);
/// -o OPTIONS, any number of times; each value is one comma-separated list.
void addOptionLists(CLI::App& command, std::vector<std::string>& lists,
                    const std::string& description);
/// An option with a number, which `valueName` says the meaning of.
void addNumber(CLI::App& command, const std::string& names, std::optional<std::uint64_t>& value,
               const std::string& valueName, const std::string& description);

/// What the command does once its arguments are parsed.
void setWork(CLI::App& command, std::function<void()> work);

} // namespace tavelin::cli
