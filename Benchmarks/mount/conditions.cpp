#include "Benchmarks/mount/conditions.hpp"

#include "support/run_process.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sys/utsname.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tavelin::bench {

namespace {

std::string processorName() {
    std::ifstream information("/proc/cpuinfo");
    for (std::string line; std::getline(information, line);)
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    return "a processor of unknown name";
}

std::string versionOf(const std::string& package) {
    const auto found = test::run({"dpkg-query", "-W", "-f=${Version}", package});
    return package + " " + (found.status == 0 ? found.out : "of unknown version");
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

} // namespace

std::string describeConditions(const std::string& tavelin) {
    utsname system{};
    ::uname(&system);
    const double memory = static_cast<double>(::sysconf(_SC_PHYS_PAGES)) *
                          static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 30);
    const std::time_t now = std::time(nullptr);
    return fmt::format("Run on {:%Y-%m-%d} on {} processors ({}), {:.0f} GiB of memory, Linux {}; "
                       "{}, {}, {}.\n",
                       fmt::localtime(now), ::sysconf(_SC_NPROCESSORS_ONLN), processorName(),
                       memory, system.release, firstLine(test::runOrThrow({tavelin, "--version"})),
                       versionOf("ntfs-3g"), versionOf("libfuse3-3"));
}

ProcessorsAwake::ProcessorsAwake()
    : request_(::open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)) {
    const int microseconds = 0;
    if (!request_ || ::write(request_.get(), &microseconds, sizeof microseconds) == -1)
        throw std::system_error(errno, std::generic_category(), "/dev/cpu_dma_latency");
}

} // namespace tavelin::bench
