#include "crash/independent_check.hpp"

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

bool isTelling(const std::string& line) {
    return line.find("failed") != std::string::npos;
}

} // namespace

IndependentCheck::IndependentCheck(const Bytes& sound) : sound_(linesAbout(sound)) {}

std::vector<std::string> IndependentCheck::linesAbout(const Bytes& image) const {
    writeFile(volume_.image(),
              std::string(reinterpret_cast<const char*>(image.data()), image.size()));
    return linesOf(volume_.check());
}

std::string IndependentCheck::complaintAbout(const Bytes& image) const {
    std::vector<std::string> lines;
    try {
        lines = linesAbout(image);
    } catch (const std::runtime_error& unreadable) {
        lines = linesOf(unreadable.what());
    }
    std::string complaint;
    for (const std::string& line : lines) {
        const bool isNew = std::find(sound_.begin(), sound_.end(), line) == sound_.end();
        if (isNew && (complaint.empty() || (isTelling(line) && !isTelling(complaint)))) {
            complaint = line;
        }
    }
    return complaint;
}

} // namespace tavelin::test
