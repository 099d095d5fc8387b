#include "platform/mount_info.hpp"

#include <fstream>
#include <optional>
#include <sstream>

namespace tavelin {

namespace {

// The table writes a space, a tab, a newline and a backslash as \ooo.
std::string withoutEscapes(const std::string& text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

bool isReadOnly(const std::string& options) {
    return options == "ro" || options.starts_with("ro,");
}

// "36 35 98:0 /root /directory rw,noatime master:1 - type source rw,options"
std::optional<MountEntry> parseMount(const std::string& line) {
    std::istringstream words(line);
    MountEntry entry;
    std::string parent, root, directory, word;
    words >> entry.id >> parent >> entry.device >> root >> directory >> entry.options;
    // A varying number of optional fields ends with a lone hyphen.
    while (words >> word && word != "-") {
    }
    if (!(words >> entry.type >> entry.source)) {
        return std::nullopt;
    }
    words >> entry.superOptions;
    entry.directory = withoutEscapes(directory);
    entry.source = withoutEscapes(entry.source);
    entry.readOnly = isReadOnly(entry.options);
    entry.superReadOnly = isReadOnly(entry.superOptions);
    return entry;
}

} // namespace

std::vector<MountEntry> mountTable(const std::filesystem::path& path) {
    std::ifstream table(path);
    std::vector<MountEntry> entries;
    for (std::string line; std::getline(table, line);) {
        if (std::optional<MountEntry> entry = parseMount(line)) {
            entries.push_back(std::move(*entry));
        }
    }
    return entries;
}

} // namespace tavelin
