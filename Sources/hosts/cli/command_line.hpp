/// The command line of `tavelin`: parses it, runs the command and reports its failure.
#pragma once

#include "hosts/cli/failure.hpp"

#include <string>
#include <vector>

namespace tavelin::cli {

/// Runs one command, tells its failure and writes its output. `signal` is set to the one that has
/// ended it, and else left alone. Called from the process's only thread; a shell does so within its
/// own command.
ExitStatus runCommand(const std::vector<std::string>& words, int& signal);

/// Returns the process's exit status: 0 done, 1 failed with a message on standard error, 2 wrong
/// usage, 3 for a `check` of an unreadable image. Replaces the process's services, so it is called
/// once in a process, from its only thread.
int runCommandLine(int argc, char** argv);

} // namespace tavelin::cli
