// What one piece of work on a mounted server cost, and all of that by server and category.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavelin::bench {

struct Measurement {
    double seconds = 0;   // that the work took
    double processor = 0; // seconds of processor time that the server took meanwhile
    double requests = 0;  // that the kernel made of it
};

// One measurement a round, by server name and category.
using Samples = std::map<std::string, std::map<std::string, std::vector<Measurement>>>;

} // namespace tavelin::bench
