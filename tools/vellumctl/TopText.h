// One frame of `vellumctl top`.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace Vellum::Tools {

using Json = nlohmann::json;

// Of two answers to adminMetrics: what is now, and how much a second since the one before. Without one before, or when
// the daemon was started anew meanwhile, the average since the start. Lines of any length, each with its end; texts are
// escaped for a terminal, and what the daemon does not tell is left out or "-". Throws Json::exception when something
// is of another type than it should be.
std::string topText(Json const& answer, Json const* before);

// A duration in seconds, as "1.2 us", "340.0 ms", "2.5 s".
std::string shortDuration(double seconds);

// How long the given share of what a histogram counted took at most, in seconds, taking the durations of a bucket as
// spread evenly; less than 0 when it counted nothing. `buckets`: [[upper end, how many are not above it], ...]; `count`
// of all. What is above the last upper end counts as that.
double quantile(Json const& buckets, double count, double share);

} // namespace Vellum::Tools
