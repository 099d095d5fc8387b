/// Ctrl-C and its like: signals that end long work between two steps.
#pragma once

#include "hosts/cli/failure.hpp"

namespace tavelin::cli {

/// Thrown where a signal has ended the work. The program then ends by that signal, so that a
/// shell's loop ends with it.
class Interruption final : public Failure {
  public:
    /// The number of the signal, by which the process then ends.
    explicit Interruption(int signal)
        : Failure("interrupted; what was finished before stays"), signal_(signal) {}

    [[nodiscard]] int signal() const noexcept { return signal_; }

  private:
    int signal_;
};

/// From now on SIGINT, SIGTERM and SIGHUP only make throwIfInterrupted() throw, and writing to a
/// closed pipe is an error instead of a signal. A second signal of a kind ends the process. One
/// that is ignored stays so: nohup(1) asks for that. Changes the process's signal actions for good.
/// Commands that only read and take long call it themselves, so that they can remove half-written
/// files on the host.
void takeInterruptions();

/// Throws Interruption once one of these signals has arrived. Long work calls it between steps, so
/// that unwinding removes half-done items and the volume is closed. Any thread.
void throwIfInterrupted();

/// Takes the signal that has arrived as dealt with: the next one interrupts again. For a shell,
/// which outlives its commands.
void forgetInterruption();

/// Ends the process by a signal, as if nothing had handled it.
[[noreturn]] void endBySignal(int signal);

} // namespace tavelin::cli
