#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "api/log/LumenLoggerWrapper.h"
#include "platform/Log.h"

namespace {

using Witnessd::AttestApi::LumenLoggerWrapper;

struct Line {
  int level;
  std::string text;
};
std::vector<Line> g_lines;

// Stands in for Log_Level: formats exactly as the platform would.
void CaptureLog(int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char buf[512];
  vsnprintf(buf, sizeof(buf), fmt, args);
  va_end(args);
  g_lines.push_back({level, buf});
}

class LoggerWrapper : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    saved_level_ = Log_GetMaxLevel();
    Log_SetMaxLevel(kLogTrivia);
  }
  void TearDown() override { Log_SetMaxLevel(saved_level_); }
  int saved_level_ = 0;
  LumenLoggerWrapper wrapper_{&CaptureLog};
};

TEST_F(LoggerWrapper, MapsEveryFrameworkLevel) {
  const struct {
    int lumen;
    int platform;
  } kMap[] = {{0, 7}, {1, 6}, {2, 5}, {3, 3}, {4, 2}, {5, 1}};
  for (const auto& m : kMap) {
    SCOPED_TRACE(m.lumen);
    g_lines.clear();
    LUMEN_LOG(wrapper_, m.lumen) << "level " << m.lumen;
    ASSERT_EQ(1u, g_lines.size());
    EXPECT_EQ(m.platform, g_lines[0].level);
    EXPECT_EQ("level " + std::to_string(m.lumen), g_lines[0].text);
  }
}

TEST_F(LoggerWrapper, FormatDirectivesInMessagesAreLoggedLiterally) {
  LUMEN_LOG(wrapper_, 4) << "value %d of %s at 100%";
  ASSERT_EQ(1u, g_lines.size());
  EXPECT_EQ("value %d of %s at 100%", g_lines[0].text);
}

TEST_F(LoggerWrapper, DisabledLevelCreatesNoRecordAndFormatsNothing) {
  Log_SetMaxLevel(kLogInfo);
  int formatted = 0;
  auto expensive = [&] {
    ++formatted;
    return "text";
  };
  LUMEN_LOG(wrapper_, 1) << expensive();  // platform 6, above info
  EXPECT_EQ(nullptr, wrapper_.CreateRecord(0, {}));
  EXPECT_EQ(0, formatted);
  EXPECT_TRUE(g_lines.empty());
  LUMEN_LOG(wrapper_, 2) << expensive();  // platform 5 = info
  EXPECT_EQ(1, formatted);
}

}  // namespace
