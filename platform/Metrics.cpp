#include "platform/Metrics.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <variant>

#include "platform/Log.h"
#include "platform/MXUser.h"

namespace Witnessd::Metrics {
namespace {

enum class Kind { kCounter, kGauge, kHistogram };

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kCounter:
      return "counter";
    case Kind::kGauge:
      return "gauge";
    case Kind::kHistogram:
      return "histogram";
  }
  return "untyped";
}

struct Family {
  Kind kind;
  std::string help;
  std::vector<double> bounds;
  // Keyed by the rendered label set so that output order is stable.
  std::map<std::string, std::unique_ptr<Counter>> counters;
  std::map<std::string, std::unique_ptr<Gauge>> gauges;
  std::map<std::string, std::unique_ptr<Histogram>> histograms;
};

struct Registry {
  MXUserExclLock* lock = MXUser_CreateExclLock("metricsRegistry", kRankUnranked);
  std::map<std::string, Family> families;
};

Registry& TheRegistry() {
  static Registry* registry = new Registry();  // never destroyed: used until exit
  return *registry;
}

bool ValidName(const std::string& name) {
  if (name.empty()) {
    return false;
  }
  for (size_t i = 0; i < name.size(); ++i) {
    char c = name[i];
    bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
    if (!alpha && !(i > 0 && c >= '0' && c <= '9')) {
      return false;
    }
  }
  return true;
}

std::string EscapeLabelValue(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

// Renders `a="x",b="y"` (no braces); the empty set renders empty.
std::string RenderLabels(const Labels& labels) {
  std::string out;
  for (const auto& [name, value] : labels) {
    if (!ValidName(name)) {
      Panic("Invalid metric label name '%s'\n", name.c_str());
    }
    if (!out.empty()) {
      out += ',';
    }
    out += name + "=\"" + EscapeLabelValue(value) + "\"";
  }
  return out;
}

std::string FormatValue(double value) {
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  if (std::isnan(value)) {
    return "NaN";
  }
  char buf[64];
  if (value == std::floor(value) && std::fabs(value) < 1e15) {
    snprintf(buf, sizeof buf, "%.0f", value);
  } else {
    snprintf(buf, sizeof buf, "%.17g", value);
  }
  return buf;
}

std::string Series(const std::string& name, const std::string& labels, const std::string& extra = "") {
  std::string all = labels;
  if (!extra.empty()) {
    all += (all.empty() ? "" : ",") + extra;
  }
  return all.empty() ? name : name + "{" + all + "}";
}

Family& FamilyFor(Registry& registry, const std::string& name, const std::string& help, Kind kind,
                  const std::vector<double>& bounds) {
  if (!ValidName(name)) {
    Panic("Invalid metric name '%s'\n", name.c_str());
  }
  auto [it, inserted] = registry.families.try_emplace(name);
  if (inserted) {
    it->second.kind = kind;
    it->second.help = help;
    it->second.bounds = bounds;
  } else if (it->second.kind != kind) {
    Panic("Metric '%s' registered as %s, used as %s\n", name.c_str(), KindName(it->second.kind), KindName(kind));
  }
  return it->second;
}

}  // namespace

Histogram::Histogram(std::vector<double> upper_bounds)
    : bounds_(std::move(upper_bounds)), counts_(bounds_.size() + 1) {
  for (size_t i = 1; i < bounds_.size(); ++i) {
    if (!(bounds_[i - 1] < bounds_[i])) {
      Panic("Histogram bounds are not increasing\n");
    }
  }
}

void Histogram::Observe(double value) {
  size_t i = 0;
  while (i < bounds_.size() && value > bounds_[i]) {
    ++i;
  }
  counts_[i].fetch_add(1, std::memory_order_relaxed);
  count_.fetch_add(1, std::memory_order_relaxed);
  sum_.fetch_add(value, std::memory_order_relaxed);
}

const std::vector<double>& DefaultSecondsBuckets() {
  static const std::vector<double> buckets = {0.001, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                              0.5,   1,     2.5,  5,     10,   30,  60};
  return buckets;
}

Counter& GetCounter(const std::string& name, const std::string& help, const Labels& labels) {
  Registry& registry = TheRegistry();
  MXUser::ExclGuard guard(registry.lock);
  auto& slot = FamilyFor(registry, name, help, Kind::kCounter, {}).counters[RenderLabels(labels)];
  if (!slot) {
    slot = std::make_unique<Counter>();
  }
  return *slot;
}

Gauge& GetGauge(const std::string& name, const std::string& help, const Labels& labels) {
  Registry& registry = TheRegistry();
  MXUser::ExclGuard guard(registry.lock);
  auto& slot = FamilyFor(registry, name, help, Kind::kGauge, {}).gauges[RenderLabels(labels)];
  if (!slot) {
    slot = std::make_unique<Gauge>();
  }
  return *slot;
}

Histogram& GetHistogram(const std::string& name, const std::string& help, const Labels& labels,
                        const std::vector<double>& upper_bounds) {
  Registry& registry = TheRegistry();
  MXUser::ExclGuard guard(registry.lock);
  Family& family = FamilyFor(registry, name, help, Kind::kHistogram, upper_bounds);
  auto& slot = family.histograms[RenderLabels(labels)];
  if (!slot) {
    slot = std::make_unique<Histogram>(family.bounds);
  }
  return *slot;
}

std::string RenderText() {
  Registry& registry = TheRegistry();
  MXUser::ExclGuard guard(registry.lock);
  std::string out;
  for (const auto& [name, family] : registry.families) {
    out += "# HELP " + name + " " + family.help + "\n";
    out += "# TYPE " + name + " " + KindName(family.kind) + "\n";
    for (const auto& [labels, counter] : family.counters) {
      out += Series(name, labels) + " " + FormatValue(counter->Value()) + "\n";
    }
    for (const auto& [labels, gauge] : family.gauges) {
      out += Series(name, labels) + " " + FormatValue(gauge->Value()) + "\n";
    }
    for (const auto& [labels, histogram] : family.histograms) {
      uint64_t cumulative = 0;
      const auto& bounds = histogram->UpperBounds();
      for (size_t i = 0; i <= bounds.size(); ++i) {
        cumulative += histogram->BucketCount(i);
        double le = i < bounds.size() ? bounds[i] : INFINITY;
        out += Series(name + "_bucket", labels, "le=\"" + FormatValue(le) + "\"") + " " +
               FormatValue(static_cast<double>(cumulative)) + "\n";
      }
      out += Series(name + "_sum", labels) + " " + FormatValue(histogram->Sum()) + "\n";
      out += Series(name + "_count", labels) + " " + FormatValue(static_cast<double>(histogram->Count())) + "\n";
    }
  }
  return out;
}

}  // namespace Witnessd::Metrics
