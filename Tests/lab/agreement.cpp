#include "lab/agreement.hpp"

#include <algorithm>

namespace tavelin::test {

std::string compare(System& system, Model& model, const std::vector<std::string>& paths) {
    std::string text;
    for (const std::string& path : paths) {
        try {
            text += model.disagreement(path, system.observe(path));
        } catch (const fskit::Error& error) {
            text += path + ": " + error.what() + "\n";
        }
    }
    return text;
}

std::vector<std::string> touched(const Model& model, const Operation& op) {
    std::vector<std::string> paths;
    for (const std::string& path :
         {op.path, op.verb == Verb::rename || op.verb == Verb::link || op.verb == Verb::exchange
                       ? op.text
                       : ""}) {
        for (const std::string& at : {path, directoryOf(path)}) {
            if (!at.empty() && model.has(at)) {
                paths.push_back(at);
            }
        }
    }
    return paths;
}

std::string difference(const Answer& answer, const Answer& expected) {
    if (answer == expected) {
        return "";
    }
    return "answered " + std::to_string(answer.error) + ", not " + std::to_string(expected.error) +
           (answer.error == expected.error ? ", with other data\n" : "\n");
}

namespace {

Operations without(Operations script, std::size_t at, std::size_t count) {
    const auto from = script.begin() + static_cast<std::ptrdiff_t>(at);
    script.erase(from, from + static_cast<std::ptrdiff_t>(count));
    return script;
}

// The same, and what a rename there has moved is still where it was.
Operations withoutRename(const Operations& script, std::size_t at) {
    const std::string& from = script[at].path;
    const std::string& to = script[at].text;
    Operations rest = without(script, at, 1);
    for (std::size_t i = at; i < rest.size(); ++i) {
        for (std::string* path : {&rest[i].path, &rest[i].text}) {
            if (*path == to || path->starts_with(to + "/")) {
                path->replace(0, to.size(), from);
            }
        }
    }
    return rest;
}

} // namespace

Operations shrink(Operations script, const std::function<bool(const Operations&)>& fails) {
    const auto adopt = [&](Operations shorter) {
        const bool isToBe = fails(shorter);
        if (isToBe) {
            script = std::move(shorter);
        }
        return isToBe;
    };
    std::size_t piece = script.size() / 2 + 1;
    for (bool isShorter = true; isShorter || piece > 1;) {
        piece = std::max<std::size_t>(piece / 2, 1);
        isShorter = false;
        for (std::size_t at = 0; at < script.size();) {
            const bool isRename = piece == 1 && script[at].verb == Verb::rename;
            if (adopt(without(script, at, std::min(piece, script.size() - at))) ||
                (isRename && adopt(withoutRename(script, at)))) {
                isShorter = true;
            } else {
                at += piece;
            }
        }
    }
    return script;
}

} // namespace tavelin::test
