/// The table of all commands of `tavelin`: name, help texts and definition.
///
/// The help, the suggestions for mistyped commands and the parser are made from this table. A new
/// command needs a row, a declaration below and a file that defines it; the shell completions and
/// the manual page list it as well.
#pragma once

#include <span>
#include <string_view>

namespace CLI {
class App;
}

namespace tavelin::cli {

/// One row. All texts are constants of the program and show in the help as they are.
struct Command {
    std::string_view name;     ///< the first word of the command line
    std::string_view group;    ///< the heading of the help under which it is listed
    std::string_view summary;  ///< one line, without a full stop
    std::string_view synopsis; ///< what follows the name
    std::string_view examples; ///< one a line, without "tavelin", each with a remark behind two "#"
    /// Adds the command's arguments and its work to a parser. Called for every row at start, so it
    /// must be cheap and touch no file.
    void (*define)(CLI::App& command);
};

/// All rows, in the order of the help. Constant; lives as long as the program.
[[nodiscard]] std::span<const Command> commandTable();

// The definitions, one file for each family of commands. See Command::define.
/// Facts about the volume and what it is in.
void defineProbe(CLI::App& command); // volume_commands.cpp
void defineInfo(CLI::App& command);
void defineLabel(CLI::App& command);
void defineDf(CLI::App& command);
void defineMap(CLI::App& command);   // map_command.cpp
void defineCheck(CLI::App& command); // check_command.cpp
/// What is in a directory, and what an item is.
void defineList(CLI::App& command); // list_commands.cpp
void defineStat(CLI::App& command);
/// Whole trees.
void defineFind(CLI::App& command); // tree_commands.cpp
void defineTree(CLI::App& command);
void defineDu(CLI::App& command);
void defineDiff(CLI::App& command); // diff_command.cpp
void defineHash(CLI::App& command); // hash_command.cpp
void defineCat(CLI::App& command);  // read_commands.cpp
void defineReadlink(CLI::App& command);
/// Copying between the volume and the host.
void defineGet(CLI::App& command); // copy_commands.cpp
void definePut(CLI::App& command);
void defineSync(CLI::App& command); // sync_command.cpp
void defineTar(CLI::App& command);  // tar_command.cpp, where there is libarchive
/// Many commands over one open volume.
void defineShell(CLI::App& command); // shell/shell_commands.cpp
void defineBatch(CLI::App& command);
void defineUndelete(CLI::App& command); // undelete_command.cpp
/// Changes of names.
void defineMkdir(CLI::App& command); // name_commands.cpp
void defineMove(CLI::App& command);
void defineLink(CLI::App& command);
void defineRemove(CLI::App& command); // remove_command.cpp
void defineXattr(CLI::App& command);  // xattr_command.cpp
void defineMount(CLI::App& command);  // mount_commands.cpp, where there is a FUSE host
void defineUnmount(CLI::App& command);
void defineMounts(CLI::App& command);
void defineEvents(CLI::App& command); // events_command.cpp

} // namespace tavelin::cli
