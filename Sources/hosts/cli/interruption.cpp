#include "hosts/cli/interruption.hpp"

#include "platform/assert.hpp"

#include <atomic>
#include <csignal>
#include <unistd.h>

namespace tavelin::cli {
namespace {

// Set by the signal handler, which may touch nothing but lock-free atomics.
std::atomic<int> arrivedSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "set by a signal handler");

} // namespace

void takeInterruptions() {
    struct sigaction action {};
    action.sa_handler = [](int signal) { arrivedSignal = signal; };
    // SA_RESETHAND restores the default action, so a second signal ends a process that hangs. No
    // SA_RESTART: a read that waits for a pipe must end with EINTR to see the flag.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before); // cannot fail for these, nor below
        if (before.sa_handler != SIG_IGN) {
            sigaction(signal, &action, nullptr);
        }
    }
    // A closed pipe would otherwise end the process in the middle of a change. Writing to it fails
    // with EPIPE instead.
    action.sa_handler = SIG_IGN;
    action.sa_flags = 0;
    sigaction(SIGPIPE, &action, nullptr);
}

void throwIfInterrupted() {
    if (const int signal = arrivedSignal) {
        TAVELIN_ASSERT(signal == SIGINT || signal == SIGTERM || signal == SIGHUP);
        throw Interruption(signal);
    }
}

void forgetInterruption() {
    arrivedSignal = 0;
    takeInterruptions();
}

void endBySignal(int signal) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    // A signal is blocked when the program was started so; it would wait and the next line exit.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(signal);
    constexpr int kShellsOffset = 128; // how a shell shows a death by signal
    _exit(kShellsOffset + signal);
}

} // namespace tavelin::cli
