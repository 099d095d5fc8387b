// fuzz_triage FILE...: runs each input in a process of its own and prints how it ended. Exits 1
// when one ended in our code.
#include "fuzz/child.hpp"

#include <fmt/core.h>

#include <fstream>
#include <iterator>
#include <map>
#include <vector>

int main(int count, char** paths) {
    using namespace tavelin::test;
    std::map<std::string, int> inLibrary;
    int ours = 0;
    int well = 0;
    for (int i = 1; i < count; i++) {
        std::ifstream file(paths[i], std::ios::binary);
        const std::vector<std::uint8_t> input{std::istreambuf_iterator<char>(file),
                                              std::istreambuf_iterator<char>()};
        const ChildResult result = runInChild(input);
        switch (result.end) {
        case ChildResult::End::well:
            well++;
            break;
        case ChildResult::End::inLibrary:
            inLibrary[result.where]++;
            break;
        case ChildResult::End::inOurs:
            ours++;
            fmt::print("{} ends in our code:\n{}\n", paths[i], result.report);
            break;
        }
    }
    for (const auto& [where, number] : inLibrary) {
        fmt::print("{:>6} end in libntfs-3g, in {}\n", number, where);
    }
    // Our code is checked at each access, the library's is not: what it does to memory that is not
    // its own may hurt in one process and not in another.
    fmt::print("{:>6} end well when tried again\n", well);
    fmt::print("{:>6} end in our code\n", ours);
    return ours == 0 ? 0 : 1;
}
