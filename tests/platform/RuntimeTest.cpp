#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstdio>
#include <future>
#include <mutex>
#include <set>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/Hearth.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace {

using Hearth::Service::Scheduler;
using Hearth::Service::ThreadPool;

TEST(Scheduler, OneShotTimerFiresOnceAndCancelledTimerNever) {
  Scheduler scheduler(1);
  std::promise<void> fired;
  std::atomic<int> count{0};
  std::atomic<bool> cancelled_ran{false};
  Scheduler::TimerId late = scheduler.AddTimer(60'000'000, [&] { cancelled_ran = true; });
  scheduler.AddTimer(1000, [&] {
    ++count;
    fired.set_value();
  });
  fired.get_future().wait();
  EXPECT_TRUE(scheduler.CancelTimer(late));
  EXPECT_FALSE(scheduler.CancelTimer(late));
  EXPECT_EQ(1, count.load());
  EXPECT_FALSE(cancelled_ran.load());
}

TEST(ThreadPool, LongRunningTasksEachHoldAThreadUpToTheMaximum) {
  ThreadPool pool(3);
  std::mutex m;
  std::condition_variable cv;
  int running = 0;
  bool release = false;
  for (int i = 0; i < 3; ++i) {
    pool.Post([&] {
      std::unique_lock<std::mutex> lock(m);
      ++running;
      cv.notify_all();
      cv.wait(lock, [&] { return release; });
    });
  }
  {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return running == 3; });
  }
  // A fourth task waits for a free thread instead of starting a fourth one.
  std::promise<void> fourth;
  pool.Post([&] { fourth.set_value(); });
  EXPECT_EQ(3u, pool.ThreadCount());
  {
    std::lock_guard<std::mutex> lock(m);
    release = true;
  }
  cv.notify_all();
  fourth.get_future().wait();
  EXPECT_EQ(3u, pool.ThreadCount());
}

TEST(SysrootPath, PrefixesAbsolutePathsOnlyWhenSet) {
  unsetenv("WITNESSD_SYSROOT");
  EXPECT_EQ("/etc/x.xml", Hearth::SysrootPath("/etc/x.xml"));
  setenv("WITNESSD_SYSROOT", "/tmp/root/", 1);
  EXPECT_EQ("/tmp/root/etc/x.xml", Hearth::SysrootPath("/etc/x.xml"));
  EXPECT_EQ("relative", Hearth::SysrootPath("relative"));
  unsetenv("WITNESSD_SYSROOT");
}

TEST(ServicePort, AcceptsOnlyPortNumbers) {
  const struct {
    const char* value;
    int port;  // -1: refused
  } kCases[] = {{"7890", 7890}, {"1", 1}, {"65535", 65535}, {"0", -1},
                {"65536", -1},  {"", -1}, {"80x", -1},      {"-5", -1}};
  for (const auto& tc : kCases) {
    SCOPED_TRACE(tc.value);
    setenv("WITNESSD_PORT", tc.value, 1);
    if (tc.port < 0) {
      EXPECT_THROW(Hearth::ServicePort(7889), std::runtime_error);
    } else {
      EXPECT_EQ(tc.port, Hearth::ServicePort(7889));
    }
  }
  unsetenv("WITNESSD_PORT");
  EXPECT_EQ(7889, Hearth::ServicePort(7889));
}

TEST(Random, CryptoBytesDifferBetweenCalls) {
  uint8_t a[32], b[32];
  ASSERT_TRUE(Random_Crypto(sizeof(a), a));
  ASSERT_TRUE(Random_Crypto(sizeof(b), b));
  EXPECT_NE(0, memcmp(a, b, sizeof(a)));
  std::set<uint32_t> seen;
  for (int i = 0; i < 64; ++i) {
    seen.insert(Random_Fast());
  }
  EXPECT_GT(seen.size(), 60u);
}

// A batch holds its lines until the outermost batch of the thread ends; a
// line lost or reordered there would hide what an event log's checks saw.
TEST(LogLineBatch, WritesItsLinesInOrderWhenTheOutermostBatchEnds) {
  std::string path = testing::TempDir() + "/batch.log";
  int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(file, 0);
  int saved = dup(STDERR_FILENO);
  dup2(file, STDERR_FILENO);
  auto written = [&path] {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  };
  std::string inside;
  {
    Hearth::LogLineBatch outer;
    Warning("first");
    {
      Hearth::LogLineBatch inner;
      Warning("second");
    }
    inside = written();
  }
  Warning("third");
  std::string after = written();
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(file);
  EXPECT_EQ(inside, "");
  size_t first = after.find("warning [");
  EXPECT_NE(after.find("] first\n"), std::string::npos) << after;
  EXPECT_LT(after.find("] first\n"), after.find("] second\n")) << after;
  EXPECT_LT(after.find("] second\n"), after.find("] third\n")) << after;
  EXPECT_EQ(first, 25u) << after;  // "<UTC time> warning [<tid>] ..."
}

}  // namespace
