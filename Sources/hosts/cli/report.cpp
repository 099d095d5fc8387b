#include "hosts/cli/report.hpp"

#include "hosts/cli/terminal.hpp"
#include "platform/assert.hpp"

#include <fmt/format.h>

#include <optional>

namespace tavelin::cli {
namespace {

/// The number of the form that docs/json.md describes. It grows when a reader must change.
constexpr int kSchema = 1;

/// The process's answer, which has one standard output and one command.
struct Report {
    std::string command;
    bool json = false;
    bool begun = false; ///< the head of the object is written
    bool empty = true;  ///< no item is written
    std::vector<JSONObject> errors;
    std::optional<JSONObject> summary;
};

Report& theReport() {
    static Report report;
    return report;
}

/// Writes the object's head before its first item, or before its end where there is none.
void beginItems(Report& report) {
    if (!report.begun) {
        report.begun = true;
        print(fmt::format("{{\"schema\":{},\"command\":{},\"items\":[", kSchema,
                          jsonText(report.command)));
    }
}

} // namespace

void beginReport(const std::string& command, bool json) {
    theReport() = {};
    theReport().command = command;
    theReport().json = json;
}

bool isReportJSON() {
    return theReport().json;
}

void addItem(const JSONObject& item) {
    Report& report = theReport();
    TAVELIN_ASSERT(report.json);
    beginItems(report);
    print((report.empty ? "\n" : ",\n") + item.text());
    report.empty = false;
}

void setSummary(const JSONObject& summary) {
    TAVELIN_ASSERT(theReport().json && !theReport().summary);
    theReport().summary = summary;
}

void tellFailure(const Failure& failure) {
    Report& report = theReport();
    const std::string message = failure.what();
    if (message.empty()) {
        return;
    }
    complain(report.command.empty() ? message : report.command + ": " + message);
    if (report.json) {
        JSONObject error;
        if (!failure.subject().empty()) {
            error.add("path", failure.subject());
        }
        report.errors.push_back(
            error.add("code", errorName(failure.number())).add("message", message));
    }
}

void endReport(ExitStatus status) {
    Report& report = theReport();
    if (!report.json) {
        return;
    }
    beginItems(report);
    JSONObject tail;
    if (report.summary) {
        tail.add("summary", *report.summary);
    }
    tail.add("errors", report.errors).add("status", static_cast<int>(status));
    // The tail's members follow those of the head, so its opening brace is dropped.
    print(fmt::format("{}],{}\n", report.empty ? "" : "\n", tail.text().substr(1)));
    report.json = false; // nothing more may be added
}

} // namespace tavelin::cli
