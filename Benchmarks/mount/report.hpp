// The comparison as a Markdown page and as a bar chart in SVG.
#pragma once

#include "Benchmarks/mount/measurement.hpp"
#include "Benchmarks/mount/mounted_server.hpp"

#include <string>
#include <vector>

namespace tavelin::bench {

struct Comparison {
    std::vector<std::string> categories; // in the order of the table
    std::string unit;         // of the times that the tables show, which are 1/1000 of the samples'
    Samples idle{};           // with processors that idle as they like
    Samples awake{};          // with processors kept awake for all servers; empty: not measured
    std::string conditions{}; // see describeConditions()
    int rounds = 0;
    bool countsRequests = false;
};

// Time, processor time and requests, one row a category; how many times faster than the better
// driver ours and the floor are, and the geometric means of that.
std::string markdownReport(const std::vector<Server>& servers, const Comparison& comparison);

// One pair of bars a category: how many times faster than the better driver ours and the floor
// are, on a logarithmic axis with the better driver at 1.
std::string svgChart(const std::vector<Server>& servers, const Comparison& comparison);

} // namespace tavelin::bench
