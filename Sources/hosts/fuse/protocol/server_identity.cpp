#include "hosts/fuse/protocol/server_identity.hpp"

#include <fmt/format.h>

#include <charconv>
#include <fstream>
#include <unistd.h>

namespace tavelin::fusehost {

namespace {

// In clock ticks since the system started, see proc(5); empty for a process that is not there.
std::string startTimeOf(pid_t process) {
    constexpr int kFieldsBefore = 19; // between the name and the start time
    std::ifstream file(fmt::format("/proc/{}/stat", process));
    std::string line;
    std::getline(file, line);
    // The name may have spaces and brackets, and is the only field that has any.
    size_t at = line.rfind(')');
    for (int field = 0; field <= kFieldsBefore && at != std::string::npos; ++field) {
        at = line.find(' ', at + 1);
    }
    return at == std::string::npos ? std::string()
                                   : line.substr(at + 1, line.find(' ', at + 1) - at - 1);
}

std::string identityOf(pid_t process) {
    return fmt::format("{} {}", process, startTimeOf(process));
}

} // namespace

std::string serverIdentity() {
    return identityOf(::getpid());
}

pid_t serverOf(std::string_view identity) {
    pid_t process = 0;
    (void)std::from_chars(identity.data(), identity.data() + identity.size(), process);
    return process > 0 && identityOf(process) == identity ? process : 0;
}

} // namespace tavelin::fusehost
