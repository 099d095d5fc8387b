#include "lab/operation.hpp"

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace tavelin::test {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 21> kVerbs{
    "create", "mkdir",     "symlink",   "remove", "rename",   "link",     "exchange",
    "lookup", "readlink",  "write",     "read",   "truncate", "allocate", "times",
    "hide",   "setStream", "getStream", "sync",   "trim",     "reload",   "cut"};

// How often each verb is drawn, in the order of kVerbs. For a cut it takes a disk in memory.
constexpr std::array<int, 21> kWeights{14, 8, 5, 8, 14, 6, 5, 4, 3, 16, 8,
                                       8,  6, 5, 4, 12, 5, 2, 2, 1, 0};

// Names that collide by case, that reach the limits, and that only Windows minds.
const std::vector<std::string> kNames{"a",
                                      "A",
                                      "b",
                                      "B",
                                      "readme.txt",
                                      "README.TXT",
                                      "\u00e9t\u00e9",
                                      "\u00c9T\u00c9",
                                      "stra\u00dfe",
                                      "\u65e5\u672c",
                                      "\U0001f642",
                                      "with space",
                                      ".dot",
                                      "tail.",
                                      "co:lon",
                                      std::string(255, 'n')};
const std::vector<std::string> kRefusedNames{".", "..", std::string(256, 'x')};
const std::vector<std::string> kStreams{"s", "com.example.tag", "\u00fcber", std::string(200, 'm')};

} // namespace

std::string toText(const Operations& script) {
    std::ostringstream out;
    for (const Operation& op : script) {
        out << kVerbs[static_cast<std::size_t>(op.verb)] << ' ' << std::quoted(op.path) << ' '
            << std::quoted(op.text) << ' ' << op.number << ' ' << op.other << ' ' << op.seed
            << '\n';
    }
    return out.str();
}

Operations fromText(const std::string& text) {
    Operations script;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string verb;
        Operation op;
        words >> verb >> std::quoted(op.path) >> std::quoted(op.text) >> op.number >> op.other >>
            op.seed;
        const auto found = std::ranges::find(kVerbs, verb);
        if (!words || found == kVerbs.end()) {
            throw std::runtime_error("not an operation: " + line);
        }
        op.verb = static_cast<Verb>(found - kVerbs.begin());
        script.push_back(op);
    }
    return script;
}

std::string pattern(std::uint64_t seed, std::int64_t length) {
    std::string bytes(static_cast<std::size_t>(length), '\0');
    std::uint64_t state = seed * 0x9e3779b97f4a7c15ull + 1;
    for (char& byte : bytes) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        byte = static_cast<char>(state >> 56);
    }
    return bytes;
}

std::string directoryOf(const std::string& path) {
    return fs::path(path).parent_path();
}

std::string nameOf(const std::string& path) {
    return fs::path(path).filename();
}

std::string OperationSource::newPath(const Tree& tree) {
    const auto& parents = below(10) == 0 ? tree.items : tree.directories;
    const auto& names = below(20) == 0 ? kRefusedNames : kNames;
    return fs::path(parents[below(parents.size())]) / names[below(names.size())];
}

std::string OperationSource::oldPath(const Tree& tree) {
    // The first one is where all is below, and stays.
    return tree.items.size() < 2 || below(10) == 0
               ? (fs::path(tree.items.front()) / kNames[below(kNames.size())]).string()
               : tree.items[1 + below(tree.items.size() - 1)];
}

std::int64_t OperationSource::length() {
    static constexpr std::array<std::int64_t, 4> kLimits{64, 1000, 9000, 150'000};
    const std::int64_t limit = kLimits[below(kLimits.size())];
    return static_cast<std::int64_t>(below(static_cast<std::uint64_t>(limit)));
}

Operation OperationSource::next(const Tree& tree) {
    std::discrete_distribution<std::size_t> verbs(kWeights.begin(), kWeights.end());
    Operation op;
    op.verb = static_cast<Verb>(verbs(random_));
    op.seed = below(1u << 20);
    if (op.verb == Verb::sync || op.verb == Verb::trim || op.verb == Verb::reload) {
        return op;
    }
    const bool makes =
        op.verb == Verb::create || op.verb == Verb::mkdir || op.verb == Verb::symlink;
    op.path = makes ? newPath(tree) : oldPath(tree);
    switch (op.verb) {
    case Verb::create:
        op.number = below(4) == 0;
        op.other = below(4) == 0 ? length() : 0;
        break;
    case Verb::symlink:
        op.text = below(8) == 0 ? "" : newPath(tree);
        break;
    case Verb::rename:
    case Verb::link:
        op.text = below(3) == 0 ? oldPath(tree) : newPath(tree);
        break;
    case Verb::exchange:
        op.text = oldPath(tree);
        break;
    case Verb::write:
    case Verb::read:
        op.number = length();
        op.other = length();
        break;
    case Verb::truncate:
        op.number = length();
        break;
    case Verb::allocate:
        op.number = length();
        op.other = 1 + length();
        op.seed = below(5);
        break;
    case Verb::times:
        op.number = static_cast<std::int64_t>(below(8'000'000'000)) - 2'000'000'000;
        op.other = static_cast<std::int64_t>(below(1'000'000'000));
        op.seed = 1 + below(15);
        break;
    case Verb::hide:
        op.number = static_cast<std::int64_t>(below(2));
        break;
    case Verb::setStream:
    case Verb::getStream:
        op.text = kStreams[below(kStreams.size())];
        op.number = static_cast<std::int64_t>(below(4));
        op.other = length();
        break;
    default:
        break;
    }
    return op;
}

} // namespace tavelin::test
