/// Arguments that commands share, added to a command's parser.
#pragma once

#include "hosts/cli/session.hpp"

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace tavelin::cli {

/// IMAGE, -o and --read-only.
void addVolume(CLI::App& command, VolumeArguments& arguments);
void addJSON(CLI::App& command, bool& json);
/// The positional arguments after IMAGE; at least `least` of them.
CLI::Option* addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
                      std::size_t least, const std::string& description);

} // namespace tavelin::cli
