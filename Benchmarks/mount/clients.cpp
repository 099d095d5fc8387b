#include "Benchmarks/mount/clients.hpp"

#include "support/run_process.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

namespace tavelin::bench {

namespace {

constexpr int kClients[] = {1, 2, 4};

struct Kind {
    const char* name;
    const char* pattern; // fio's
    const char* block;
    const char* side; // of fio's report
};
// Reads go around the kernel's cache, which would answer them all after the first round.
constexpr Kind kKinds[] = {{"random 4 KiB reads", "randread", "4k", "read"},
                           {"random 4 KiB writes", "randwrite", "4k", "write"},
                           {"sequential 1 MiB reads", "read", "1m", "read"},
                           {"sequential 1 MiB writes", "write", "1m", "write"}};

std::string category(const Kind& kind, int clients) {
    return fmt::format("{}, {} client{}", kind.name, clients, clients == 1 ? "" : "s");
}

nlohmann::json runFio(const std::filesystem::path& directory, const Kind& kind, int clients,
                      int seconds) {
    const bool reads = std::string(kind.side) == "read";
    const std::string out = test::runOrThrow(
        {"fio", "--name=client", "--directory=" + directory.string(),
         fmt::format("--rw={}", kind.pattern), fmt::format("--bs={}", kind.block), "--size=64m",
         fmt::format("--numjobs={}", clients), fmt::format("--direct={}", reads ? 1 : 0),
         "--ioengine=psync", "--time_based", fmt::format("--runtime={}", seconds), "--randseed=7",
         "--group_reporting", "--fallocate=none", "--output-format=json"});
    // Notes may stand before the report.
    const nlohmann::json report = nlohmann::json::parse(out.substr(out.find('{')));
    return report.at("jobs").at(0).at(kind.side);
}

} // namespace

std::vector<std::string> clientCategories() {
    std::vector<std::string> names;
    for (const Kind& kind : kKinds)
        for (const int clients : kClients)
            names.push_back(category(kind, clients));
    return names;
}

std::map<std::string, Measurement> measureClients(const Server& server,
                                                  const std::filesystem::path& store,
                                                  const std::filesystem::path& directory,
                                                  const RequestCounter& requests, int seconds) {
    MountedServer mounted(server, store, directory);
    // fio makes the files that are missing before it measures, whatever is then done to them.
    runFio(directory, kKinds[0], kClients[std::size(kClients) - 1], 1);
    std::map<std::string, Measurement> costs;
    for (const Kind& kind : kKinds)
        for (const int clients : kClients) {
            const double processor = mounted.processorTime();
            const uint64_t before = requests.count();
            const nlohmann::json side = runFio(directory, kind, clients, seconds);
            const double thousands = side.at("total_ios").get<double>() / 1000;
            if (thousands <= 0)
                throw std::runtime_error(category(kind, clients) + ": fio did nothing");
            Measurement& cost = costs[category(kind, clients)];
            cost.seconds = 1000 / side.at("iops").get<double>();
            cost.processor = (mounted.processorTime() - processor) / thousands;
            cost.requests = static_cast<double>(requests.count() - before) / thousands;
        }
    mounted.unmount();
    return costs;
}

} // namespace tavelin::bench
