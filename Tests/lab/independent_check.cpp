#include "lab/independent_check.hpp"

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace tavelin::test {

namespace {

std::vector<std::string> linesOf(const std::string& said) {
    static const std::regex number("0x[0-9a-f]+|[0-9]+");
    std::istringstream lines(std::regex_replace(said, number, "#"));
    std::vector<std::string> result;
    for (std::string line; std::getline(lines, line);) {
        result.push_back(line);
    }
    return result;
}

} // namespace

IndependentCheck::IndependentCheck(const Bytes& sound) : sound_(linesAbout(sound)) {}

std::vector<std::string> IndependentCheck::linesAbout(const Bytes& image) const {
    writeFile(volume_.image(), textOf(image));
    return linesOf(volume_.check());
}

std::string IndependentCheck::complaintsAbout(const Bytes& image) const {
    std::vector<std::string> lines;
    try {
        lines = linesAbout(image);
    } catch (const std::runtime_error& unreadable) {
        lines = linesOf(unreadable.what());
    }
    std::string complaints;
    for (const std::string& line : lines) {
        const bool isNew = std::find(sound_.begin(), sound_.end(), line) == sound_.end();
        complaints += isNew ? line + "\n" : "";
    }
    return complaints;
}

} // namespace tavelin::test
