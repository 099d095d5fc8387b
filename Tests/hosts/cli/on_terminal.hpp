// The program as a person at a terminal has it.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavelin::test {

// What a person types once the terminal has shown something behind what was answered last. What is
// typed before the prompt is shown may be dropped with the terminal's change of mode.
using Dialogue = std::vector<std::pair<std::string, std::string>>; // shown, then typed

// Sent as the signal that it makes. Typed, it would also have the terminal drop what the program
// says at the same time.
inline constexpr const char* kCtrlC = "\x03";

// All that a terminal receives while `tavelin` runs on it, which must end with 0. An absent
// NO_COLOR is not set.
std::string onTerminal(std::vector<std::string> words, const char* noColour = nullptr,
                       const char* kind = "xterm", unsigned short columns = 100,
                       const Dialogue& dialogue = {});

} // namespace tavelin::test
