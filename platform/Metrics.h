// Process-wide metrics in the Prometheus text exposition format. Families are
// registered on first use by name; each labelled series is created once and
// lives for the whole process, so callers may keep the returned references.
// Updates are lock-free; only series lookup and rendering take the registry
// lock (a leaf: nothing else is acquired while it is held).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Witnessd::Metrics {

using Labels = std::vector<std::pair<std::string, std::string>>;

class Counter {
 public:
  void Inc(double amount = 1.0) { value_.fetch_add(amount, std::memory_order_relaxed); }
  double Value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<double> value_{0.0};
};

class Gauge {
 public:
  void Set(double value) { value_.store(value, std::memory_order_relaxed); }
  void Inc(double amount = 1.0) { value_.fetch_add(amount, std::memory_order_relaxed); }
  void Dec(double amount = 1.0) { value_.fetch_sub(amount, std::memory_order_relaxed); }
  double Value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<double> value_{0.0};
};

class Histogram {
 public:
  // upper_bounds: strictly increasing bucket bounds; +Inf is implicit.
  explicit Histogram(std::vector<double> upper_bounds);
  void Observe(double value);

  const std::vector<double>& UpperBounds() const { return bounds_; }
  // Non-cumulative count of bucket i (i == UpperBounds().size() is +Inf).
  uint64_t BucketCount(size_t i) const { return counts_[i].load(std::memory_order_relaxed); }
  uint64_t Count() const { return count_.load(std::memory_order_relaxed); }
  double Sum() const { return sum_.load(std::memory_order_relaxed); }

 private:
  std::vector<double> bounds_;
  std::vector<std::atomic<uint64_t>> counts_;
  std::atomic<uint64_t> count_{0};
  std::atomic<double> sum_{0.0};
};

// Bucket bounds in seconds for request and session durations.
const std::vector<double>& DefaultSecondsBuckets();

// Lookup-or-create. A name keeps the kind (and buckets) it was first
// registered with; asking for it as another kind is a programming error and
// panics. Names and label names must match [a-zA-Z_:][a-zA-Z0-9_:]*.
Counter& GetCounter(const std::string& name, const std::string& help, const Labels& labels = {});
Gauge& GetGauge(const std::string& name, const std::string& help, const Labels& labels = {});
Histogram& GetHistogram(const std::string& name, const std::string& help, const Labels& labels = {},
                        const std::vector<double>& upper_bounds = DefaultSecondsBuckets());

// Every family in name order, series in label order, in text format 0.0.4.
std::string RenderText();

}  // namespace Witnessd::Metrics
