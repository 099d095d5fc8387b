/// The command line of `tavelin`: parses it, runs the command and reports its failure.
#pragma once

namespace tavelin::cli {

/// Returns the process's exit status: 0 done, 1 failed with a message on standard error, 2 wrong
/// usage, 3 for a `check` of an unreadable image. Replaces the process's services, so it is called
/// once in a process, from its only thread.
int runCommandLine(int argc, char** argv);

} // namespace tavelin::cli
