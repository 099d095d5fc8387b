// The categories of the comparison: what is run on one mounted server, and what it took.
#pragma once

#include "Benchmarks/mount/measurement.hpp"
#include "Benchmarks/mount/mounted_server.hpp"
#include "Benchmarks/mount/request_counter.hpp"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace tavelin::bench {

struct Sizes {
    int largeFile = 256 << 20; // bytes
    int randomReads = 4'000;   // of 4 KiB
    int syncedWrites = 1'000;  // of 4 KiB, each followed by fsync
    int smallFiles = 5'000;    // in smallDirectories directories, and again in one directory
    int smallDirectories = 20; //
    int smallFile = 2'000;     // bytes
    int sourceFiles = 1'500;   // of the tree that is copied in
    // Bytes, mostly a hole. The drivers send large writes (`big_writes`) from 32 GiB on only.
    uint64_t image = 33ull << 30;
};

Sizes quickSizes();

// The categories in the order of the table.
const std::vector<std::string>& categories();

// What the round needs besides the servers, made once.
struct Material {
    std::filesystem::path sourceTree; // copied in by cp
    std::filesystem::path workTree;   // a git work tree of smallFiles files
};

// Makes the material below `directory`.
Material makeMaterial(const std::filesystem::path& directory, const Sizes& sizes);

// Runs every category once on `server` over `store`, mounted on `directory`; its cost by category.
// Cold categories start on a fresh mount with the kernel's caches dropped.
// Throws std::runtime_error (or std::system_error) when an operation fails.
std::map<std::string, Measurement> runRound(const Server& server,
                                            const std::filesystem::path& store,
                                            const std::filesystem::path& directory,
                                            const Material& material, const Sizes& sizes,
                                            const RequestCounter& requests);

// Seconds that `work` takes.
template<typename Work>
double timed(Work&& work);

} // namespace tavelin::bench

#include <chrono>

template<typename Work>
double tavelin::bench::timed(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
