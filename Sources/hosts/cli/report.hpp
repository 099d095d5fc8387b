/// What a command answers: results and failures, as text for people or, with --json, as one JSON
/// object. docs/json.md describes the object.
///
/// The object is written piece by piece: a listing may be larger than memory, and a reader can
/// begin before the end. Its end is written on every path, failures included, so it is always
/// valid. The functions belong to the process's only thread and act on its standard output.
#pragma once

#include "hosts/cli/failure.hpp"
#include "hosts/cli/interruption.hpp"
#include "hosts/cli/json.hpp"

#include <string>
#include <vector>

namespace tavelin::cli {

/// Called before everything else here, once a command. `command` stands in front of messages; empty
/// while no command is known. With `json` the command answers with an object.
void beginReport(const std::string& command, bool json);

/// Whether the answer is an object. Commands then print nothing but by addItem().
[[nodiscard]] bool isReportJSON();

/// Adds one result to the object. Throws Failure when it cannot be written.
void addItem(const JSONObject& item);
/// Sets the object's "summary". Called at most once.
void setSummary(const JSONObject& summary);
/// Tells a failure on standard error, and adds it to the object. One with an empty message has been
/// told before.
void tellFailure(const Failure& failure);
/// Ends the object. Called once, last. Throws Failure when it cannot be written.
void endReport(ExitStatus status);

/// Calls `work(path)` for each of the paths. A path that fails is told, and the next ones go on; at
/// the end a Failure without a message carries the exit status. Failures that concern more than one
/// item end the work at once.
template<typename Work>
void forEachPath(const std::vector<std::string>& paths, Work&& work) {
    bool failed = false;
    for (const std::string& path : paths) {
        throwIfInterrupted();
        try {
            work(path);
        } catch (const ItemFailure& failure) {
            tellFailure(failure);
            failed = true;
        }
    }
    if (failed) {
        throw Failure("");
    }
}

} // namespace tavelin::cli
