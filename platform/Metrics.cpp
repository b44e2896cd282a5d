#include "platform/Metrics.h"

#include <algorithm>

#include <prometheus/metric_family.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

namespace Witnessd::Metrics {
namespace {

prometheus::Registry& TheRegistry() {
  static prometheus::Registry* registry = new prometheus::Registry();  // never destroyed: used until exit
  return *registry;
}

}  // namespace

const std::vector<double>& DefaultSecondsBuckets() {
  static const std::vector<double> buckets = {0.001, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                              0.5,   1,     2.5,  5,     10,   30,  60};
  return buckets;
}

prometheus::Family<Counter>& CounterFamily(const std::string& name, const std::string& help) {
  return prometheus::BuildCounter().Name(name).Help(help).Register(TheRegistry());
}

Counter& GetCounter(const std::string& name, const std::string& help, const Labels& labels) {
  return CounterFamily(name, help).Add(labels);
}

Gauge& GetGauge(const std::string& name, const std::string& help, const Labels& labels) {
  return prometheus::BuildGauge().Name(name).Help(help).Register(TheRegistry()).Add(labels);
}

Histogram& GetHistogram(const std::string& name, const std::string& help, const Labels& labels,
                        const std::vector<double>& upper_bounds) {
  return prometheus::BuildHistogram().Name(name).Help(help).Register(TheRegistry()).Add(labels, upper_bounds);
}

std::string RenderText() {
  std::vector<prometheus::MetricFamily> families = TheRegistry().Collect();
  // The registry collects by kind, then in registration order, and a family's
  // series come in hash order; name and label order keep a scrape's layout
  // the same from one scrape, and one build, to the next.
  std::sort(families.begin(), families.end(),
            [](const prometheus::MetricFamily& a, const prometheus::MetricFamily& b) { return a.name < b.name; });
  for (prometheus::MetricFamily& family : families) {
    std::stable_sort(family.metric.begin(), family.metric.end(),
                     [](const prometheus::ClientMetric& a, const prometheus::ClientMetric& b) { return a.label < b.label; });
  }
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace Witnessd::Metrics
