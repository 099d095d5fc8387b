#include "on_terminal.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavelin::test {

std::string onTerminal(std::vector<std::string> words, const char* noColour, const char* kind,
                       unsigned short columns, const Dialogue& dialogue) {
    words.insert(words.begin(), TAVELIN_PROGRAM);
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    winsize size{24, columns, 0, 0};
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, &size);
    if (process == 0) {
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        std::signal(SIGINT, SIG_DFL); // which a shell has its background jobs ignore
        setenv("TERM", kind, 1);
        noColour == nullptr ? unsetenv("NO_COLOR") : setenv("NO_COLOR", noColour, 1);
        execv(arguments.front(), arguments.data());
        _exit(127);
    }
    std::string received;
    std::size_t seen = 0;
    auto next = dialogue.begin();
    char piece[4096];
    // A terminal whose last user is gone answers an error rather than an end.
    for (ssize_t count; (count = read(terminal, piece, sizeof piece)) > 0;) {
        received.append(piece, static_cast<std::size_t>(count));
        // What is left behind a match may hold the next one.
        for (std::size_t at = 0;
             next != dialogue.end() && (at = received.find(next->first, seen)) != std::string::npos;
             ++next) {
            seen = at + next->first.size();
            if (next->second == kCtrlC) {
                kill(process, SIGINT);
            } else {
                EXPECT_EQ(write(terminal, next->second.data(), next->second.size()),
                          static_cast<ssize_t>(next->second.size()));
            }
        }
    }
    EXPECT_EQ(next, dialogue.end()) << received;
    close(terminal);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0) << received;
    return received;
}

} // namespace tavelin::test
