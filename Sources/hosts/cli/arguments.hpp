/// Declares a command's arguments to its parser.
///
/// The parser's headers take longer to compile than a whole command, so its class is only declared
/// here. Each function binds a variable by reference. The variable must outlive the parser: each
/// command keeps its variables in a shared struct that its work owns. A variable has its value when
/// the work runs and keeps its initial value when the user leaves the argument out.
///
/// Positional arguments are filled in the order of their declaration. `names` of an option are
/// written as in "-q,--quiet". `description` is one line of the help. A word that does not fit is
/// wrong usage, which the parser reports before any work begins. All functions are called from the
/// process's only thread, before parsing.
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

/// IMAGE, -o and --read-only: the arguments of every command that opens a volume. IMAGE becomes the
/// next positional argument. In a shell they are those of the open volume, and nothing is added.
void addVolume(CLI::App& command, VolumeArguments& arguments);
/// Leaves "-h" to an option of the command; its help answers to "--help" alone.
void freeLetterOfHelp(CLI::App& command);
/// --json, for output that programs read.
void addJSON(CLI::App& command, bool& json);

/// A positional argument that must be given.
void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& description);
/// A positional argument that must be given and must be one of `choices`.
void addChoice(CLI::App& command, const std::string& name, std::string& value,
               const std::vector<std::string>& choices, const std::string& description);
/// A positional argument that may be left out. An empty word is a value, not an absent one.
void addArgument(CLI::App& command, const std::string& name, std::optional<std::string>& value,
                 const std::string& description);
/// The remaining positional arguments: from `least` to `most` of them, without an upper bound when
/// `most` is absent. The commands rely on `least` and do not check it again.
void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              int least, const std::string& description, std::optional<int> most = std::nullopt);

/// A flag without a value. `value` becomes true when it is given.
void addFlag(CLI::App& command, const std::string& names, bool& value,
             const std::string& description);
/// A flag that is wrong usage without the flag `other`, which must have been added before.
void addFlagWith(CLI::App& command, const std::string& other, const std::string& names, bool& value,
                 const std::string& description);
/// -o OPTIONS, any number of times, as mount(8) has it. Each value is one comma-separated list,
/// which is split and checked when the volume is opened.
void addOptionLists(CLI::App& command, std::vector<std::string>& lists,
                    const std::string& description);
/// An option with one word, any number of times.
void addTexts(CLI::App& command, const std::string& names, std::vector<std::string>& values,
              const std::string& valueName, const std::string& description);
/// An option with a word that stays as it is given.
void addText(CLI::App& command, const std::string& names, std::optional<std::string>& value,
             const std::string& valueName, const std::string& description);
/// An option with a number that is not negative. `valueName` stands for the number in the help.
void addNumber(CLI::App& command, const std::string& names, std::optional<std::uint64_t>& value,
               const std::string& valueName, const std::string& description);

/// Sets the work that runs once, after the command's arguments are parsed. It fails by throwing
/// Failure and owns the bound variables.
void setWork(CLI::App& command, std::function<void()> work);

} // namespace tavelin::cli
