#include "Benchmarks/mount/report.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

namespace tavelin::bench {

namespace {

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

using Value = double Measurement::*;

// Medians of one value of a finished comparison, and their ratios.
class Results {
  public:
    Results(const std::vector<Server>& servers, const std::vector<std::string>& categories,
            const Samples& samples, Value value)
        : servers_(servers), categories_(categories), samples_(samples), value_(value) {}

    const std::vector<std::string>& categories() const { return categories_; }

    double of(const Server& server, const std::string& category) const {
        std::vector<double> values;
        for (const Measurement& measured : samples_.at(server.name).at(category))
            values.push_back(measured.*value_);
        return median(std::move(values));
    }
    double betterDriver(const std::string& category) const {
        double best = std::numeric_limits<double>::infinity();
        for (const Server& server : servers_)
            if (server.role == Role::driver)
                best = std::min(best, of(server, category));
        return best;
    }
    const Server* withRole(Role role) const {
        const auto found = std::find_if(servers_.begin(), servers_.end(),
                                        [&](const Server& s) { return s.role == role; });
        return found == servers_.end() ? nullptr : &*found;
    }
    double gain(const Server& server, const std::string& category) const {
        return betterDriver(category) / of(server, category);
    }
    double meanGain(const Server& server) const {
        double logs = 0;
        for (const std::string& category : categories())
            logs += std::log(gain(server, category));
        return std::exp(logs / static_cast<double>(categories().size()));
    }
    double sum(const Server& server) const {
        double all = 0;
        for (const std::string& category : categories())
            all += of(server, category);
        return all;
    }
    // The sum of the driver whose sum is smaller.
    double betterSum() const {
        double best = std::numeric_limits<double>::infinity();
        for (const Server& server : servers_)
            if (server.role == Role::driver)
                best = std::min(best, sum(server));
        return best;
    }

  private:
    const std::vector<Server>& servers_;
    const std::vector<std::string>& categories_;
    const Samples& samples_;
    const Value value_;
};

constexpr int kRow = 34, kLabels = 210, kPlot = 520, kTop = 56, kFoot = 24;
constexpr double kLow = 0.25, kHigh = 32; // ends of the logarithmic axis

double across(double ratio) {
    const double at = std::log(std::clamp(ratio, kLow, kHigh) / kLow) / std::log(kHigh / kLow);
    return kLabels + at * kPlot;
}

std::string bar(double ratio, int top, const char* style) {
    const double from = std::min(across(1), across(ratio));
    const double to = std::max(across(1), across(ratio));
    return fmt::format("<rect class=\"{}\" x=\"{:.1f}\" y=\"{}\" width=\"{:.1f}\" height=\"11\"/>"
                       "<text class=\"value\" x=\"{:.1f}\" y=\"{}\">{:.2f}×</text>\n",
                       style, from, top, std::max(to - from, 1.0), to + 4, top + 10, ratio);
}

// With the number of rounds and the drivers' options.
constexpr const char* kMethod =
    "The same image in memory for all, freshly formatted for each of {} rounds, in which the\n"
    "servers take turns; medians. The drivers run with `{}`. \"Cold\" is a fresh mount\n"
    "with the kernel's caches dropped. \"pass-through\" serves a directory in memory and knows\n"
    "nothing of NTFS: what FUSE itself costs.\n";

// One row a category, with what each server took and the ratios of the better driver's to ours and
// the floor's.
std::string timesTable(const std::vector<Server>& servers, const std::string& unit,
                       const Results& results) {
    std::string head = fmt::format("| {} |", unit), rule = "|---|", rows;
    for (const Server& server : servers) {
        head += fmt::format(" {} |", server.name);
        rule += "---:|";
    }
    std::vector<const Server*> compared;
    for (const Role role : {Role::ours, Role::floor})
        if (const Server* server = results.withRole(role)) {
            compared.push_back(server);
            head += fmt::format(" {} against the better driver |", server->name);
            rule += "---:|";
        }
    const Server* const before = results.withRole(Role::before);
    if (before != nullptr) {
        head += " against before |";
        rule += "---:|";
    }
    for (const std::string& category : results.categories()) {
        rows += fmt::format("| {} |", category);
        for (const Server& server : servers)
            rows += fmt::format(" {:.1f} |", results.of(server, category) * 1e3);
        for (const Server* server : compared)
            rows += fmt::format(" {:.2f}× |", results.gain(*server, category));
        if (before != nullptr)
            rows += fmt::format(" {:.2f}× |", results.of(*before, category) /
                                                  results.of(servers.front(), category));
        rows += "\n";
    }
    rows += "| all, and the geometric mean |";
    for (const Server& server : servers)
        rows += fmt::format(" {:.1f} |", results.sum(server) * 1e3);
    for (const Server* server : compared)
        rows += fmt::format(" {:.2f}× |", results.meanGain(*server));
    return head + "\n" + rule + "\n" + rows + "\n\n";
}

std::string requestsTable(const std::vector<Server>& servers, const Results& results) {
    std::string head = "| requests |", rule = "|---|", rows;
    for (const Server& server : servers) {
        head += fmt::format(" {} |", server.name);
        rule += "---:|";
    }
    for (const std::string& category : results.categories()) {
        rows += fmt::format("| {} |", category);
        for (const Server& server : servers)
            rows += fmt::format(" {:.0f} |", results.of(server, category));
        rows += "\n";
    }
    return head + "\n" + rule + "\n" + rows;
}

} // namespace

std::string markdownReport(const std::vector<Server>& servers, const Comparison& comparison) {
    const Results wall(servers, comparison.categories, comparison.idle, &Measurement::seconds);
    const Results processor(servers, comparison.categories, comparison.idle,
                            &Measurement::processor);
    std::string text = comparison.conditions + "\n" +
                       fmt::format(kMethod, comparison.rounds, kDriverOptions) + "\n## Time\n\n" +
                       timesTable(servers, comparison.unit, wall);
    if (!comparison.awake.empty())
        text += "## Time, with processors kept out of deep idle states for all servers\n\n" +
                timesTable(servers, comparison.unit,
                           Results(servers, comparison.categories, comparison.awake,
                                   &Measurement::seconds));
    text += fmt::format("## The server's processor time\n\n{}",
                        timesTable(servers, comparison.unit, processor));
    if (const Server* ours = processor.withRole(Role::ours);
        ours != nullptr && std::isfinite(processor.betterSum()))
        text += fmt::format("Over the whole run {} takes {:.2f} of the better driver's.\n\n",
                            ours->name, processor.sum(*ours) / processor.betterSum());
    if (comparison.countsRequests)
        text += "## What the kernel asks\n\n" +
                requestsTable(servers, Results(servers, comparison.categories, comparison.idle,
                                               &Measurement::requests));
    return text;
}

std::string svgChart(const std::vector<Server>& servers, const Comparison& comparison) {
    const Results results(servers, comparison.categories, comparison.idle, &Measurement::seconds);
    const Server* ours = results.withRole(Role::ours);
    const Server* floor = results.withRole(Role::floor);
    const int height = kTop + kRow * static_cast<int>(results.categories().size()) + kFoot + 4;
    std::string chart = fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" "
        "height=\"{1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
        "<style>.ours{{fill:#2f6f9f}}.floor{{fill:#b9c4cc}}.value{{font-size:10px;fill:#444}}"
        ".axis{{stroke:#999;stroke-width:1}}</style>\n"
        "<rect width=\"{0}\" height=\"{1}\" fill=\"#fff\"/>\n"
        "<text x=\"12\" y=\"20\" font-weight=\"bold\">Times faster than the better of ntfs-3g and "
        "lowntfs-3g (1 is even, higher is better)</text>\n",
        kLabels + kPlot + 60, height);
    chart += fmt::format("<rect class=\"ours\" x=\"12\" y=\"30\" width=\"11\" height=\"11\"/>"
                         "<text x=\"28\" y=\"40\">tavelin</text>");
    if (floor != nullptr)
        chart +=
            "<rect class=\"floor\" x=\"90\" y=\"30\" width=\"11\" height=\"11\"/>"
            "<text x=\"106\" y=\"40\">a FUSE server that only passes through to memory</text>\n";
    for (double mark = kLow; mark <= kHigh; mark *= 2)
        chart += fmt::format("<line class=\"axis\" x1=\"{0:.1f}\" x2=\"{0:.1f}\" y1=\"{1}\" "
                             "y2=\"{2}\" opacity=\"{3}\"/><text class=\"value\" x=\"{0:.1f}\" "
                             "y=\"{4}\" text-anchor=\"middle\">{5}×</text>\n",
                             across(mark), kTop, height - kFoot, mark == 1.0 ? 1.0 : 0.25,
                             height - kFoot + 14, mark);
    int top = kTop;
    for (const std::string& category : results.categories()) {
        chart += fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"end\">{}</text>\n", kLabels - 8,
                             top + 17, category);
        if (ours != nullptr)
            chart += bar(results.gain(*ours, category), top + 3, "ours");
        if (floor != nullptr)
            chart += bar(results.gain(*floor, category), top + 16, "floor");
        top += kRow;
    }
    return chart + "</svg>\n";
}

} // namespace tavelin::bench
