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
        if (next != dialogue.end() && received.find(next->first, seen) != std::string::npos) {
            seen = received.size();
            if (next->second == kCtrlC) {
                kill(process, SIGINT);
            } else {
                EXPECT_EQ(write(terminal, next->second.data(), next->second.size()),
                          static_cast<ssize_t>(next->second.size()));
            }
            ++next;
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
