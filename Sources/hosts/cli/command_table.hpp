/// Every command of `tavelin`: what it is called, how it is used, and where it is defined.
#pragma once

#include <span>
#include <string_view>

namespace CLI {
class App;
}

namespace tavelin::cli {

struct Command {
    std::string_view name;
    std::string_view group;
    std::string_view summary;
    std::string_view synopsis; ///< what follows the name
    std::string_view examples; ///< one a line, without "tavelin", each with a remark behind two "#"
    /// Adds the command's arguments to a parser, and the work to be done once they are parsed.
    void (*define)(CLI::App& command);
};

/// In the order of the help.
[[nodiscard]] std::span<const Command> commandTable();

// One file for each family of commands.
void defineProbe(CLI::App& command); // volume_commands.cpp
void defineInfo(CLI::App& command);
void defineLabel(CLI::App& command);
void defineCheck(CLI::App& command); // check_command.cpp
void defineList(CLI::App& command);  // list_commands.cpp
void defineStat(CLI::App& command);
void defineCat(CLI::App& command); // read_commands.cpp
void defineReadlink(CLI::App& command);
void defineGet(CLI::App& command); // copy_commands.cpp
void definePut(CLI::App& command);
void defineMkdir(CLI::App& command); // name_commands.cpp
void defineMove(CLI::App& command);
void defineLink(CLI::App& command);
void defineRemove(CLI::App& command); // remove_command.cpp
void defineXattr(CLI::App& command);  // xattr_command.cpp
void defineMount(CLI::App& command);  // mount_commands.cpp, where there is a FUSE host
void defineUnmount(CLI::App& command);
void defineEvents(CLI::App& command); // events_command.cpp

} // namespace tavelin::cli
