/// The command line of `tavelin`: parses it, runs the command, tells how it went.
#pragma once

namespace tavelin::cli {

/// Answers the process's exit status: 0 done, 1 failed with a message on standard error, 2 wrong
/// usage. To be called once in a process, from its only thread.
int runCommandLine(int argc, char** argv);

} // namespace tavelin::cli
