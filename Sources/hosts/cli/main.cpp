#include "hosts/cli/command_line.hpp"

int main(int argc, char** argv) {
    return tavelin::cli::runCommandLine(argc, argv);
}
