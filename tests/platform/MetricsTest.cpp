#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/Metrics.h"

namespace Witnessd::Metrics {
namespace {

bool Contains(const std::string& text, const std::string& line) { return text.find(line + "\n") != std::string::npos; }

TEST(Metrics, RendersEachKindInTextFormat) {
  GetCounter("t_calls_total", "Calls.", {{"op", "get"}, {"result", "ok"}}).Inc();
  GetCounter("t_calls_total", "Calls.", {{"op", "get"}, {"result", "ok"}}).Inc(2);
  GetCounter("t_calls_total", "Calls.", {{"op", "a\"b\\c\nd"}}).Inc();
  GetGauge("t_live", "Live.").Set(7);
  auto& histogram = GetHistogram("t_seconds", "Durations.", {}, {0.5, 1});
  for (double v : {0.1, 0.5, 0.7, 3.0}) {
    histogram.Observe(v);
  }
  std::string text = RenderText();
  struct {
    const char* line;
  } const expected[] = {
      {"# TYPE t_calls_total counter"},
      {"t_calls_total{op=\"get\",result=\"ok\"} 3"},
      {"t_calls_total{op=\"a\\\"b\\\\c\\nd\"} 1"},
      {"# HELP t_live Live."},
      {"# TYPE t_live gauge"},
      {"t_live 7"},
      {"# TYPE t_seconds histogram"},
      {"t_seconds_bucket{le=\"0.5\"} 2"},  // the bound itself falls in its bucket
      {"t_seconds_bucket{le=\"1\"} 3"},
      {"t_seconds_bucket{le=\"+Inf\"} 4"},
      {"t_seconds_sum 4.2999999999999998"},
      {"t_seconds_count 4"},
  };
  for (const auto& e : expected) {
    EXPECT_TRUE(Contains(text, e.line)) << e.line << "\nin:\n" << text;
  }
}

TEST(Metrics, ConcurrentUpdatesAreNotLost) {
  Counter& counter = GetCounter("t_concurrent_total", "Concurrent.");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 10000; ++i) {
        GetCounter("t_concurrent_total", "Concurrent.").Inc();
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter.Value(), 40000);
}

TEST(MetricsDeathTest, KindAndNameMisuseAborts) {
  GetGauge("t_kind", "Kind.");
  EXPECT_DEATH(GetCounter("t_kind", "Kind."), "registered as gauge");
  EXPECT_DEATH(GetCounter("bad-name", "x"), "Invalid metric name");
  EXPECT_DEATH(GetCounter("t_ok", "x", {{"1abc", "v"}}), "Invalid metric label name");
}

}  // namespace
}  // namespace Witnessd::Metrics
