#include "hosts/cli/command_line.hpp"
#include "platform/standard_descriptors.hpp"

#include <csignal>
#include <cstdlib>

int main(int argc, char** argv) {
    if (!tavelin::openStandardDescriptors()) {
        return EXIT_FAILURE; // and nowhere to say so
    }
    // A write beyond a limit on file sizes then fails with EFBIG. It would end the process else,
    // and a mount with it.
    std::signal(SIGXFSZ, SIG_IGN);
    return tavelin::cli::runCommandLine(argc, argv);
}
