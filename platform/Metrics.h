// Process-wide metrics in the Prometheus text exposition format, kept in one
// prometheus-cpp registry. A family is registered on first use by name; each
// labelled series is created once and lives for the whole process, so
// callers may keep the returned references. Updates are lock-free for
// counters and gauges; series lookup and rendering take the registry's and
// the family's locks.
//
// The daemon registers every family it exposes while it starts, so a scrape
// lists them all (at zero) before the first attestation or API call.
#pragma once

#include <string>
#include <vector>

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>

namespace Witnessd::Metrics {

using Labels = prometheus::Labels;  // label name -> value; rendered in name order
using Counter = prometheus::Counter;
using Gauge = prometheus::Gauge;
using Histogram = prometheus::Histogram;

// Bucket bounds in seconds for request and session durations.
const std::vector<double>& DefaultSecondsBuckets();

// Lookup-or-create. A name keeps the kind (and, per series, the buckets) it
// was first registered with; asking for it as another kind, or an invalid
// metric or label name, throws std::invalid_argument.
prometheus::Family<Counter>& CounterFamily(const std::string& name, const std::string& help);
Counter& GetCounter(const std::string& name, const std::string& help, const Labels& labels = {});
Gauge& GetGauge(const std::string& name, const std::string& help, const Labels& labels = {});
Histogram& GetHistogram(const std::string& name, const std::string& help, const Labels& labels = {},
                        const std::vector<double>& upper_bounds = DefaultSecondsBuckets());

// Every family in name order, in text format 0.0.4.
std::string RenderText();

}  // namespace Witnessd::Metrics
