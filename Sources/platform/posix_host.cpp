// The services that read the host's settings: information dictionary, container, version.
#include "platform/private/posix_services.hpp"
#include "platform/product.hpp"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/utsname.h>
#include <unistd.h>

namespace tavelin::posix {

namespace {

bool isSet(const char* value) {
    return value != nullptr && *value != '\0';
}

/// The content of a small file; empty when it cannot be read.
std::string contentsOf(const char* path) {
    std::ifstream file(path);
    std::ostringstream contents;
    contents << file.rdbuf();
    return std::move(contents).str();
}

} // namespace

InformationDictionary informationDictionary() {
    // The keys that the extension's Info.plist has and that our code looks up.
    return {
        {"CFBundleIdentifier", product::kExtensionBundleID},
        {"CFBundleShortVersionString", product::kVersion},
        {"CFBundleVersion", product::kBuild},
        {"TVLLogGroup", product::kGroup},
        {"EXAppExtensionAttributes", Value::Map{{"FSShortName", product::kShortName}}},
    };
}

std::optional<std::filesystem::path> containerFrom(const char* container, const char* stateHome,
                                                   const char* home, const std::string& group,
                                                   bool isRoot) {
    if (isSet(container)) {
        return std::filesystem::path(container);
    }
    if (isRoot) {
        // With sudo, HOME may be another user's, who could have put links there.
        return std::filesystem::path("/var/lib") / product::kShortName / group;
    }
    std::filesystem::path state;
    // The XDG base directory rules say to ignore a relative directory.
    if (isSet(stateHome) && stateHome[0] == '/') {
        state = stateHome;
    } else if (isSet(home)) {
        state = std::filesystem::path(home) / ".local" / "state";
    } else {
        return std::nullopt;
    }
    return state / product::kShortName / group;
}

std::optional<std::filesystem::path> groupContainer(const std::string& group) {
    // getenv() races only with changes of the environment. No process of ours makes any once its
    // threads run.
    const auto variable = [](const char* name) {
        return std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    };
    return containerFrom(variable("TAVELIN_GROUP_CONTAINER"), variable("XDG_STATE_HOME"),
                         variable("HOME"), group, ::geteuid() == 0);
}

std::string prettyName(std::string_view osRelease) {
    // os-release(5): one NAME=value per line, the value quoted as in a shell. The escapes of a
    // shell do not occur in the names of distributions, so only the quotes are removed.
    constexpr std::string_view kKey = "PRETTY_NAME=";
    std::istringstream lines{std::string(osRelease)};
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kKey)) {
            std::string value = line.substr(kKey.size());
            std::erase_if(value, [](char c) { return c == '"' || c == '\''; });
            return value;
        }
    }
    return {};
}

std::string operatingSystemVersion() {
    utsname names{};
    if (uname(&names) != 0) {
        return "unknown"; // cannot fail with a valid buffer; a version is not worth an error
    }
    const std::string kernel = std::string(names.sysname) + " " + names.release;
    const std::string distribution = prettyName(contentsOf("/etc/os-release"));
    return distribution.empty() ? kernel : distribution + ", " + kernel;
}

} // namespace tavelin::posix
