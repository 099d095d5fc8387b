// The comparison as a Markdown table and as a bar chart in SVG.
#pragma once

#include "Benchmarks/mount/mounted_server.hpp"

#include <map>
#include <string>
#include <vector>

namespace tavelin::bench {

// Seconds of every round, by server name and category.
using Samples = std::map<std::string, std::map<std::string, std::vector<double>>>;

double median(std::vector<double> values);

// One row a category: milliseconds of every server, and how many times faster than the better
// driver ours and the floor are; below them the geometric means of those two columns, and a note.
std::string markdownTable(const std::vector<Server>& servers, const Samples& samples);

// One pair of bars a category: how many times faster than the better driver ours and the floor
// are, on a logarithmic axis with the better driver at 1.
std::string svgChart(const std::vector<Server>& servers, const Samples& samples);

} // namespace tavelin::bench
