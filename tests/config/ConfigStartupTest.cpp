// The configuration layer in the real daemon: the signing key across starts,
// and a damaged database stopping the start.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "tests/support/DaemonProcess.h"

namespace {

using Witnessd::Testing::DaemonProcess;
using Witnessd::Testing::FreePort;
using Witnessd::Testing::MakeTempDir;
using Witnessd::Testing::PrepareSysroot;

constexpr const char* kDatabase = "/var/lib/quarro/witnessd/configstore.db";
constexpr const char* kServing = "HTTP endpoint listening on TCP port";

TEST(ConfigStartup, SigningKeyIsGeneratedOnceAndKeptAcrossStarts) {
  std::string root = MakeTempDir("witnessd-config-start");
  PrepareSysroot(root);
  std::filesystem::remove_all(root + "/var/lib/quarro");  // the store makes its directory
  for (int start = 0; start < 2; ++start) {
    SCOPED_TRACE(start);
    DaemonProcess daemon(root, FreePort());
    ASSERT_TRUE(daemon.Start());
    ASSERT_TRUE(daemon.WaitForLog(kServing)) << daemon.Log();
    EXPECT_EQ(start == 0 ? 1 : 0, daemon.CountInLog("Generating private key and certificate"));
    daemon.Signal(SIGTERM);
    EXPECT_EQ(0, daemon.WaitExit());
  }
  EXPECT_TRUE(std::filesystem::exists(root + kDatabase));
  std::filesystem::remove_all(root);
}

TEST(ConfigStartup, DamagedDatabaseEndsTheStartWithStatus1) {
  std::string root = MakeTempDir("witnessd-config-damaged");
  PrepareSysroot(root);
  std::ofstream(root + kDatabase) << std::string(4096, 'x');
  DaemonProcess daemon(root, FreePort());
  ASSERT_TRUE(daemon.Start());
  EXPECT_EQ(1, daemon.WaitExit());
  EXPECT_EQ(1, daemon.CountInLog("Exiting with error: "));
  EXPECT_EQ(1, daemon.CountInLog("configstore.db: file is not a database"));
  EXPECT_EQ(0, daemon.CountInLog("Generating private key"));
  EXPECT_EQ(0, daemon.CountInLog(kServing));
  std::filesystem::remove_all(root);
}

}  // namespace
