// The configuration layer in the real daemon: the store's file modes, and a
// damaged database or signing key record stopping the start.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "platform/configstore/ConfigStore.h"
#include "tests/support/DaemonProcess.h"

namespace {

using Witnessd::Testing::DaemonProcess;
using Witnessd::Testing::FreePort;
using Witnessd::Testing::MakeTempDir;
using Witnessd::Testing::PrepareSysroot;

constexpr const char* kDatabase = "/var/lib/quarro/witnessd/configstore.db";
constexpr const char* kServing = "HTTP endpoint listening on TCP port";

// The store holds the private key: its files are the owner's alone under a
// permissive umask, and wider modes found at start are tightened.
TEST(ConfigStartup, StoreFilesAreOwnerOnly) {
  std::string root = MakeTempDir("witnessd-config-modes");
  PrepareSysroot(root);
  mode_t old_umask = umask(022);
  const std::string files[] = {root + kDatabase, root + kDatabase + "-wal", root + kDatabase + "-shm"};
  for (bool widened : {false, true}) {
    SCOPED_TRACE(widened);
    if (widened) {
      for (const std::string& f : files) {
        chmod(f.c_str(), 0644);
      }
    }
    DaemonProcess daemon(root, FreePort());
    ASSERT_TRUE(daemon.Start());
    ASSERT_TRUE(daemon.WaitForLog(kServing)) << daemon.Log();
    for (const std::string& f : files) {
      struct stat st {};
      ASSERT_EQ(0, stat(f.c_str(), &st)) << f;
      EXPECT_EQ(0600u, st.st_mode & 07777) << f;
    }
    EXPECT_EQ(widened ? 3 : 0, daemon.CountInLog("tightened to 0600")) << daemon.Log();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(0, daemon.WaitExit());
  }
  umask(old_umask);
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

// StoredBody reads (or, with |body| set, first writes) the raw body of the
// signing key record, as a damaged or hand-edited database would hold it.
std::string StoredBody(const std::string& path, const char* body = nullptr) {
  HyvConfig::HyvConfigStore::Open(path, "boot");  // the schema
  sqlite3* db = nullptr;
  EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> owned(db, sqlite3_close);
  sqlite3_stmt* st = nullptr;
  if (body != nullptr) {
    sqlite3_prepare_v2(db, "INSERT INTO records(key, component, grp, instance, body) VALUES"
                           "('certificate', 'attestation', 'hyv', '', ?1)", -1, &st, nullptr);
    sqlite3_bind_text(st, 1, body, -1, SQLITE_TRANSIENT);
    EXPECT_EQ(SQLITE_DONE, sqlite3_step(st));
    sqlite3_finalize(st);
  }
  sqlite3_prepare_v2(db, "SELECT body FROM records WHERE key='certificate'", -1, &st, nullptr);
  std::string out = sqlite3_step(st) == SQLITE_ROW ? reinterpret_cast<const char*>(sqlite3_column_text(st, 0)) : "";
  sqlite3_finalize(st);
  return out;
}

// A record that cannot be read is no missing record: the start ends with
// status 1 naming the problem, and the record is left for the operator.
TEST(ConfigStartup, UnreadableSigningKeyEndsTheStartAndIsKept) {
  const struct {
    const char* name;
    const char* body;
    const char* problem;
  } kCases[] = {
      {"not JSON", "{\"fields\": ", "stored record is not valid JSON"},
      {"key of the wrong type", R"({"fields": {"certificate": "C", "private_key": true}})",
       "field 'private_key' is not a string"},
      {"no key", R"({"fields": {"certificate": "C"}})", "holds no private key"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string root = MakeTempDir("witnessd-config-key");
    PrepareSysroot(root);
    StoredBody(root + kDatabase, c.body);
    DaemonProcess daemon(root, FreePort());
    ASSERT_TRUE(daemon.Start());
    EXPECT_EQ(1, daemon.WaitExit()) << daemon.Log();
    EXPECT_EQ(1, daemon.CountInLog("Exiting with error: ")) << daemon.Log();
    EXPECT_EQ(1, daemon.CountInLog(c.problem)) << daemon.Log();
    EXPECT_EQ(0, daemon.CountInLog("Generating private key"));
    EXPECT_EQ(c.body, StoredBody(root + kDatabase));
    std::filesystem::remove_all(root);
  }
}

}  // namespace
