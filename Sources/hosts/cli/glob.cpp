#include "hosts/cli/glob.hpp"

#include "platform/assert.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace tavelin::cli {
namespace {

char lowered(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

/// Bytes of the character of UTF-8 that a text begins with; 1 for a byte that begins none.
std::size_t characterLength(std::string_view text) {
    TAVELIN_ASSERT(!text.empty());
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t length = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    return std::min(length, text.size());
}

/// The characters compare by their bytes: UTF-8 keeps the order of code points.
std::string foldedFirst(std::string_view text) {
    std::string character(text.substr(0, characterLength(text)));
    character.front() = lowered(character.front());
    return character;
}

/// A set as it stands at the start of a pattern: "[…]".
struct Set {
    std::string_view members; ///< between the brackets, without the "!"
    bool negated = false;
    std::size_t length = 0; ///< with the brackets
};

std::optional<Set> setAt(std::string_view pattern) {
    const bool negated = pattern.size() > 1 && (pattern[1] == '!' || pattern[1] == '^');
    const std::size_t begin = negated ? 2 : 1;
    // A "]" directly behind the start is a member.
    const std::size_t end = pattern.find(']', begin + 1);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    return Set{pattern.substr(begin, end - begin), negated, end + 1};
}

bool contains(const Set& set, const std::string& character) {
    bool found = false;
    for (std::string_view rest = set.members; !rest.empty();) {
        const std::string first = foldedFirst(rest);
        rest.remove_prefix(first.size());
        std::string last = first;
        if (rest.size() > 1 && rest.front() == '-') {
            rest.remove_prefix(1);
            last = foldedFirst(rest);
            rest.remove_prefix(last.size());
        }
        found = found || (first <= character && character <= last);
    }
    return found != set.negated;
}

/// Compares one character and moves both texts on where it matches. `pattern` is not at a "*".
bool matchOne(std::string_view& pattern, std::string_view& name) {
    TAVELIN_ASSERT(!pattern.empty() && pattern.front() != '*');
    if (name.empty()) {
        return false;
    }
    const std::string character = foldedFirst(name);
    std::size_t length = 0;
    if (const auto set = pattern.front() == '[' ? setAt(pattern) : std::nullopt) {
        if (!contains(*set, character)) {
            return false;
        }
        length = set->length;
    } else if (pattern.front() == '?') {
        length = 1;
    } else {
        if (foldedFirst(pattern) != character) {
            return false;
        }
        length = characterLength(pattern);
    }
    pattern.remove_prefix(length);
    name.remove_prefix(character.size());
    return true;
}

std::vector<std::string_view> componentsOf(std::string_view path) {
    std::vector<std::string_view> components;
    while (!path.empty()) {
        const std::size_t slash = std::min(path.find('/'), path.size());
        if (slash > 0) {
            components.push_back(path.substr(0, slash));
        }
        path.remove_prefix(std::min(slash + 1, path.size()));
    }
    return components;
}

} // namespace

bool matchesName(std::string_view pattern, std::string_view name) {
    // After a mismatch the last "*" takes one character more. Earlier ones need no second try: what
    // lies between two stars may as well match where it did first.
    std::optional<std::pair<std::string_view, std::string_view>> star;
    while (!pattern.empty() || !name.empty()) {
        if (!pattern.empty() && pattern.front() == '*') {
            pattern.remove_prefix(1);
            star.emplace(pattern, name);
        } else if (pattern.empty() || !matchOne(pattern, name)) {
            if (!star || star->second.empty()) {
                return false;
            }
            star->second.remove_prefix(characterLength(star->second));
            pattern = star->first;
            name = star->second;
        }
    }
    return true;
}

bool matchesPath(std::string_view pattern, std::string_view path) {
    const auto names = componentsOf(path);
    if (pattern.find('/') == std::string_view::npos && pattern != "**") {
        return !names.empty() && matchesName(pattern, names.back());
    }
    const auto patterns = componentsOf(pattern);
    // reached[i]: the first components of the pattern that are done match the first i names.
    std::vector<bool> reached(names.size() + 1, false);
    reached[0] = true;
    for (const std::string_view component : patterns) {
        std::vector<bool> next(names.size() + 1, false);
        for (std::size_t i = 0; i <= names.size(); ++i) {
            if (component == "**") {
                next[i] = reached[i] || (i > 0 && next[i - 1]);
            } else {
                next[i] = i > 0 && reached[i - 1] && matchesName(component, names[i - 1]);
            }
        }
        reached = std::move(next);
    }
    return reached.back();
}

} // namespace tavelin::cli
