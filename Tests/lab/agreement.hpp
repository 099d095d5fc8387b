// A volume held against its model, and scripts for which the two disagree.
#pragma once

#include "lab/system.hpp"

#include <functional>
#include <string>
#include <vector>

namespace tavelin::test {

// How the items at these paths differ from the model's; empty when they agree.
std::string compare(System& system, Model& model, const std::vector<std::string>& paths);

// Those of an operation's items that the model has, with the directories they are in.
std::vector<std::string> touched(const Model& model, const Operation& op);

// How an answer differs from the one expected; empty when it does not.
std::string difference(const Answer& answer, const Answer& expected);

// Leaves out of a failing script what it fails without, in ever smaller pieces.
Operations shrink(Operations script, const std::function<bool(const Operations&)>& fails);

} // namespace tavelin::test
