#include "mount/tree.hpp"

#include "support/temp_folder.hpp"

#include <algorithm>
#include <random>

namespace tavelin::test {

namespace fs = std::filesystem;

Tree readTree(const fs::path& folder) {
    Tree tree;
    for (const fs::directory_entry& found : fs::recursive_directory_iterator(folder)) {
        TreeEntry& entry = tree[found.path().lexically_relative(folder)];
        entry.type = found.symlink_status().type();
        std::string content;
        if (entry.type == fs::file_type::regular) {
            content = readFile(found.path());
            entry.size = found.file_size();
        } else if (entry.type == fs::file_type::symlink) {
            content = fs::read_symlink(found.path());
        }
        entry.content = std::hash<std::string>()(content);
    }
    return tree;
}

std::string firstDifference(const Tree& expected, const Tree& actual) {
    for (const auto& [path, entry] : expected) {
        const auto found = actual.find(path);
        if (found == actual.end()) {
            return path + " is missing";
        }
        if (!(found->second == entry)) {
            return path + " differs";
        }
    }
    for (const auto& [path, entry] : actual) {
        if (!expected.contains(path)) {
            return path + " is too much";
        }
    }
    return {};
}

void makeTree(const fs::path& folder, int files, unsigned seed) {
    std::mt19937 random(seed);
    const std::string oddNames[] = {"with space", "ünïcödé", "trailing.", "semi;colon", "日本語"};
    for (int i = 0; i < files; ++i) {
        const fs::path parent =
            folder / ("a" + std::to_string(i % 7)) / ("b" + std::to_string(i % 31));
        fs::create_directories(parent);
        const std::string name =
            (i % 50 == 0 ? oddNames[random() % std::size(oddNames)] : "file") + std::to_string(i);
        if (i % 97 == 0) {
            fs::create_symlink("../target of " + name, parent / name);
            continue;
        }
        // Mostly small, now and then of many clusters.
        const size_t size = random() % 10 == 0 ? random() % 200'000 : random() % 3'000;
        std::string content(size, '\0');
        std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
        writeFile(parent / name, content);
    }
}

} // namespace tavelin::test
