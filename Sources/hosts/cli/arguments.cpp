#include "hosts/cli/arguments.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <utility>

namespace tavelin::cli {
namespace {

/// The parser's check of a list of volume options: why it is wrong, or an empty text. The module
/// ignores words that it does not know, so a misspelt "ro" would open the volume for writing.
std::string unknownOption(const std::string& list) {
    static constexpr std::string_view kKnown[] = {"",
                                                  "ro",
                                                  "rdonly",
                                                  "windows_names",
                                                  "ignore_case",
                                                  "nocheck",
                                                  "symlinks=windows",
                                                  "symlinks=interix"};
    for (const std::string& word : CLI::detail::split(list, ',')) {
        if (std::find(std::begin(kKnown), std::end(kKnown), word) == std::end(kKnown)) {
            return "there is no volume option \"" + word +
                   "\": ro, windows_names, ignore_case, nocheck and symlinks=windows|interix are "
                   "all";
        }
    }
    return {};
}

} // namespace

void addVolume(CLI::App& command, VolumeArguments& arguments) {
    if (const StandingVolume* const standing = StandingVolume::current()) {
        arguments = standing->arguments();
        return;
    }
    addArgument(command, "IMAGE", arguments.image,
                "Image file or block device; disk.img:2 is its second partition");
    addOptionLists(command, arguments.options,
                   "Volume options, comma separated: ro, windows_names, ignore_case, nocheck, "
                   "symlinks=windows|interix");
    command.get_option("-o")->check(unknownOption);
    addFlag(command, "--read-only", arguments.readOnly, "Do not change the volume");
    addFlag(command, "--wait", arguments.wait, "Wait while another program is using IMAGE");
    addNumber(command, "--offset", arguments.offset, "BYTES", "Where in IMAGE the volume begins");
}

void freeLetterOfHelp(CLI::App& command) {
    command.set_help_flag("--help", "Print this help and exit");
}

void addJSON(CLI::App& command, bool& json) {
    addFlag(command, "--json", json, "Print JSON");
}

void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& description) {
    // Without a type name the help shows the argument's name alone, and not "TEXT" behind it.
    command.add_option(name, value, description)->required()->type_name("");
}

void addChoice(CLI::App& command, const std::string& name, std::string& value,
               const std::vector<std::string>& choices, const std::string& description) {
    command.add_option(name, value, description)
        ->required()
        ->type_name("")
        ->check(CLI::IsMember(choices));
}

void addArgument(CLI::App& command, const std::string& name, std::optional<std::string>& value,
                 const std::string& description) {
    // The parser's own conversion to an optional takes an empty word for an absent one. A callback
    // keeps it: `label IMAGE ""` must fail and not show the label.
    const auto keep = [&value](const std::string& given) { value = given; };
    command.add_option_function<std::string>(name, keep, description)->type_name("");
}

void addPaths(CLI::App& command, const std::string& name, std::vector<std::string>& paths,
              int least, const std::string& description, std::optional<int> most) {
    CLI::Option* const option = command.add_option(name, paths, description)->type_name("");
    if (least > 0) {
        option->required()->expected(least, most.value_or(CLI::detail::expected_max_vector_size));
    }
}

void addFlag(CLI::App& command, const std::string& names, bool& value,
             const std::string& description) {
    command.add_flag(names, value, description);
}

void addFlagWith(CLI::App& command, const std::string& other, const std::string& names, bool& value,
                 const std::string& description) {
    command.add_flag(names, value, description)->needs(command.get_option(other));
}

void addOptionLists(CLI::App& command, std::vector<std::string>& lists,
                    const std::string& description) {
    addTexts(command, "-o", lists, "OPTIONS", description);
}

void addTexts(CLI::App& command, const std::string& names, std::vector<std::string>& values,
              const std::string& valueName, const std::string& description) {
    // A list takes several words by default, and would swallow IMAGE after "-o ro".
    command.add_option(names, values, description)->type_name(valueName)->allow_extra_args(false);
}

void addText(CLI::App& command, const std::string& names, std::optional<std::string>& value,
             const std::string& valueName, const std::string& description) {
    const auto keep = [&value](const std::string& given) { value = given; };
    command.add_option_function<std::string>(names, keep, description)->type_name(valueName);
}

void addNumber(CLI::App& command, const std::string& names, std::optional<std::uint64_t>& value,
               const std::string& valueName, const std::string& description) {
    command.add_option(names, value, description)->type_name(valueName);
}

void setWork(CLI::App& command, std::function<void()> work) {
    command.callback(std::move(work));
}

} // namespace tavelin::cli
