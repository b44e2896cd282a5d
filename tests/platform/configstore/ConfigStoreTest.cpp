#include "platform/configstore/ConfigStore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>

namespace HyvConfig {
namespace {

using HostCtl::Lib::HostCtlException;

std::string TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "configstore-XXXXXX").string();
  return mkdtemp(pattern.data());
}

ConfigStoreObjectId Ek(const std::string& name) {
  return ConfigStoreObjectId("tpm2_endorsement_keys", "attestation", "hyv", name);
}

class ConfigStoreTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = TempDir();
    path_ = dir_ + "/sub/dir/configstore.db";  // the directory is created on open
    store_ = HyvConfigStore::Open(path_, "boot-1");
  }
  void TearDown() override {
    store_.reset();
    std::filesystem::remove_all(dir_);
  }

  void PutEk(const std::string& name, const std::string& pem) {
    ConfigStoreObject object(Ek(name));
    object.SetValue("name", name);
    object.SetValue("public_key", pem);
    int status = 0;
    store_->SetObject(object, status);
  }

  std::string dir_;
  std::string path_;
  std::shared_ptr<HyvConfigStore> store_;
};

TEST_F(ConfigStoreTest, RecordsSurviveReopenWithTypesAndSubObjectOrder) {
  ConfigStoreObject ca(ConfigStoreObjectId("tpm2_ca_certificates", "attestation", "hyv", "vendor"));
  ca.SetValue("name", "vendor");
  ca.SetValue("enabled", true);
  ca.CreateSubObject(SubObjectId("cert_chain"))->SetValue("certs", std::vector<std::string>{"leaf", "root"});
  ca.CreateSubObject(SubObjectId("paks", "zeta"))->SetValue("name", "zeta");
  ca.CreateSubObject(SubObjectId("paks", "alpha"))->SetValue("name", "alpha");
  int status = -1;
  store_->SetObject(ca, status);
  EXPECT_EQ(0, status);

  store_ = HyvConfigStore::Open(path_, "boot-1");
  ConfigStoreObjectPtr read = store_->GetObject(ca.GetConfigStoreObjectId());
  ASSERT_NE(nullptr, read);
  std::string name;
  bool enabled = false;
  std::vector<std::string> certs;
  read->GetValue("name", &name);
  read->GetValue("enabled", &enabled);
  ASSERT_NE(nullptr, read->GetSubObject(SubObjectId("cert_chain")));
  read->GetSubObject(SubObjectId("cert_chain"))->GetValue("certs", &certs);
  EXPECT_EQ("vendor", name);
  EXPECT_TRUE(enabled);
  EXPECT_EQ((std::vector<std::string>{"leaf", "root"}), certs);
  auto paks = read->GetSubObjects("paks");
  ASSERT_EQ(2u, paks.size());  // creation order, not sorted
  paks[0]->GetValue("name", &name);
  EXPECT_EQ("zeta", name);
  EXPECT_EQ(nullptr, read->GetSubObject(SubObjectId("paks", "missing")));
  EXPECT_EQ(nullptr, ca.CreateSubObject(SubObjectId("")));

  // Absent fields read as defaults; a field of another type throws.
  bool flag = true;
  read->GetValue("absent", &flag);
  EXPECT_FALSE(flag);
  EXPECT_THROW(read->GetValue("name", &flag), HostCtlException);
  EXPECT_THROW(read->GetValue("enabled", &certs), HostCtlException);
}

TEST_F(ConfigStoreTest, UpdateMergesFieldsAndCreatesMissingRecords) {
  ConfigStoreObjectId id("certificate", "attestation", "hyv");
  ConfigStoreObject first(id);
  first.SetValue("certificate", "C");
  store_->UpdateObject(id, first);  // absent: created
  ConfigStoreObject second(id);
  second.SetValue("private_key", "K");
  store_->UpdateObject(id, second);
  std::string cert, key;
  auto read = store_->GetObject(id);
  ASSERT_NE(nullptr, read);
  read->GetValue("certificate", &cert);
  read->GetValue("private_key", &key);
  EXPECT_EQ("C", cert);
  EXPECT_EQ("K", key);

  // Set replaces the whole record.
  int status = -1;
  store_->SetObject(second, status);
  EXPECT_EQ(1, status);
  store_->GetObject(id)->GetValue("certificate", &cert);
  EXPECT_EQ("", cert);
}

TEST_F(ConfigStoreTest, InstancesListInCreationOrderAndDelete) {
  FilterSpecObject all(ConfigStoreObjectId("tpm2_endorsement_keys", "attestation", "hyv"));
  EXPECT_TRUE(store_->GetObjectInstances(all).empty());
  PutEk("b", "B");
  PutEk("a", "A");
  PutEk("c", "C");
  PutEk("b", "B2");  // replacing keeps the position
  auto list = store_->GetObjectInstances(all);
  std::vector<std::string> names;
  for (const auto& object : list) {
    names.push_back(object->GetConfigStoreObjectId().instance_id);
  }
  EXPECT_EQ((std::vector<std::string>{"b", "a", "c"}), names);
  EXPECT_TRUE(store_->DeleteObject(Ek("a")));
  EXPECT_FALSE(store_->DeleteObject(Ek("a")));
  EXPECT_EQ(nullptr, store_->GetObject(Ek("a")));
  EXPECT_EQ(2u, store_->GetObjectInstances(all).size());
  // Other keys and components are not listed.
  ConfigStoreObject other(ConfigStoreObjectId("tpm2_endorsement_keys", "other", "hyv", "x"));
  int status = 0;
  store_->SetObject(other, status);
  EXPECT_EQ(2u, store_->GetObjectInstances(all).size());
}

TEST_F(ConfigStoreTest, BootStatusBelongsToOneBoot) {
  PutEk("a", "A");
  EXPECT_FALSE(store_->GetBootStatus(Ek("a")));
  store_->SetBootStatus(Ek("a"), true);
  EXPECT_TRUE(store_->GetBootStatus(Ek("a")));
  EXPECT_EQ(1u, store_->GetDesiredUserConfigInstances(Ek(""), UserConfigView::kAtBoot).size());
  EXPECT_EQ(nullptr, store_->GetDesiredUserConfig(ConfigStoreObjectId("tpm2_settings", "attestation", "hyv"),
                                                  UserConfigView::kAtBoot));
  store_ = HyvConfigStore::Open(path_, "boot-2");
  EXPECT_FALSE(store_->GetBootStatus(Ek("a")));
}

TEST_F(ConfigStoreTest, ExportIsCanonicalAndImportReplacesListedKeys) {
  std::vector<FilterSpecObject> filters = {
      FilterSpecObject(ConfigStoreObjectId("tpm2_settings", "attestation", "hyv")),
      FilterSpecObject(ConfigStoreObjectId("tpm2_endorsement_keys", "attestation", "hyv"))};
  PutEk("b", "B");
  PutEk("a", "A");
  auto other = HyvConfigStore::Open(dir_ + "/other.db", "boot-1");
  for (const char* name : {"a", "b"}) {  // the other order
    ConfigStoreObject object(Ek(name));
    object.SetValue("public_key", std::string(1, static_cast<char>(std::toupper(name[0]))));
    object.SetValue("name", name);
    int status = 0;
    other->SetObject(object, status);
  }
  std::string text = store_->Export(filters);
  EXPECT_EQ(text, other->Export(filters));
  EXPECT_EQ(std::string::npos, text.find("certificate"));  // unselected keys stay out

  // Import over a store with different EKs replaces them all.
  auto target = HyvConfigStore::Open(dir_ + "/target.db", "boot-1");
  ConfigStoreObject stale(Ek("stale"));
  ConfigStoreObject kept(ConfigStoreObjectId("certificate", "attestation", "hyv"));
  int status = 0;
  target->SetObject(stale, status);
  target->SetObject(kept, status);
  std::vector<ErrorInfo> errors;
  ASSERT_TRUE(target->Import(text, filters, nullptr, errors));
  EXPECT_TRUE(errors.empty());
  EXPECT_EQ(text, target->Export(filters));
  EXPECT_EQ(nullptr, target->GetObject(Ek("stale")));
  EXPECT_NE(nullptr, target->GetObject(kept.GetConfigStoreObjectId()));
}

TEST_F(ConfigStoreTest, ImportIsAllOrNothing) {
  std::vector<FilterSpecObject> filters = {
      FilterSpecObject(ConfigStoreObjectId("tpm2_endorsement_keys", "attestation", "hyv"))};
  PutEk("a", "A");
  const std::string good = store_->Export(filters);
  PutEk("b", "B");
  const std::string before = store_->Export(filters);

  std::string bad_record = good;
  bad_record.replace(bad_record.find("\"public_key\": \"A\""), 17, "\"public_key\": 7");
  std::string unlisted_key = good;
  unlisted_key.replace(unlisted_key.rfind("\"key\": \"tpm2_endorsement_keys\""), 30, "\"key\": \"certificate\"");
  std::string refused_record = good;
  refused_record.replace(refused_record.find("\"public_key\": \"A\""), 17, "\"public_key\": \"refused\"");
  auto check = [](const ConfigStoreObject& object) {
    std::string key;
    object.GetValue("public_key", &key);
    return key == "refused" ? std::string("refused by the check") : std::string();
  };
  const struct {
    const char* name;
    std::string text;
  } kCases[] = {
      {"not json", "{"},
      {"other format", "{\"format\": \"x\", \"keys\": [], \"records\": []}"},
      {"format not a string", "{\"format\": 1, \"keys\": [], \"records\": []}"},
      {"not an object", "[1, 2]"},
      {"bad field value", bad_record},
      {"record of an unlisted key", unlisted_key},
      {"listed key not allowed, no records",
       R"({"format": "witnessd-configstore-1", "keys": [["certificate", "attestation", "hyv"]], "records": []})"},
      {"record refused by the check", refused_record},
      {"nested past the depth limit", std::string(100, '[') + std::string(100, ']')},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::vector<ErrorInfo> errors;
    EXPECT_FALSE(store_->Import(c.text, filters, check, errors));
    EXPECT_FALSE(errors.empty());
    EXPECT_EQ(before, store_->Export(filters));
  }
  // A store failure part-way through the transaction leaves it unchanged too.
  for (int skip = 0; skip < 6; ++skip) {
    SCOPED_TRACE(skip);
    store_->FailSqliteCallAfter(skip);
    std::vector<ErrorInfo> errors;
    EXPECT_FALSE(store_->Import(good, filters, check, errors));
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ("disk I/O error", errors[0].message);
    EXPECT_EQ(before, store_->Export(filters));
  }
}

// Every operation, failed at each SQLite call in turn, throws the SQLite
// message and leaves the stored records as they were.
TEST_F(ConfigStoreTest, EverySqliteFailureThrowsAndChangesNothing) {
  std::vector<FilterSpecObject> filters = {
      FilterSpecObject(ConfigStoreObjectId("tpm2_endorsement_keys", "attestation", "hyv"))};
  PutEk("a", "A");
  ConfigStoreObject fresh(Ek("b"));
  fresh.SetValue("name", "b");
  const struct {
    const char* name;
    bool writes;
    std::function<void()> op;
  } kOps[] = {
      {"get", false, [&] { store_->GetObject(Ek("a")); }},
      {"set", true, [&] { int s = 0; store_->SetObject(fresh, s); }},
      {"update", true, [&] { store_->UpdateObject(Ek("a"), fresh); }},
      {"delete", true, [&] { store_->DeleteObject(Ek("a")); }},
      {"instances", false, [&] { store_->GetObjectInstances(filters[0]); }},
      {"desired", false, [&] { store_->GetDesiredUserConfigInstances(Ek(""), UserConfigView::kAtBoot); }},
      {"boot status", true, [&] { store_->SetBootStatus(Ek("a"), true); }},
      {"export", false, [&] { store_->Export(filters); }},
  };
  for (const auto& op : kOps) {
    SCOPED_TRACE(op.name);
    int failures = 0;
    for (int skip = 0;; ++skip) {
      ASSERT_LT(skip, 50);
      const std::string before = store_->Export(filters);
      store_->FailSqliteCallAfter(skip);
      try {
        op.op();
      } catch (const HostCtlException& e) {
        ++failures;
        EXPECT_STREQ("disk I/O error", e.what());
        EXPECT_EQ(before, store_->Export(filters));
        continue;
      }
      store_->FailSqliteCallAfter(-1);
      break;
    }
    EXPECT_GT(failures, 0);
    // The store still works after every failure; restore the baseline.
    store_->DeleteObject(Ek("b"));
    PutEk("a", "A");
  }
}

TEST(ConfigStoreOpen, DamagedFilesRefuseToOpen) {
  std::string dir = TempDir();
  const struct {
    const char* name;
    std::function<void(const std::string&)> damage;
  } kCases[] = {
      {"not a database", [](const std::string& p) { std::ofstream(p) << std::string(8192, 'x'); }},
      {"overwritten pages",
       [](const std::string& p) {
         {
           auto store = HyvConfigStore::Open(p, "b");
           for (int i = 0; i < 200; ++i) {
             ConfigStoreObject object(Ek("ek" + std::to_string(i)));
             object.SetValue("public_key", std::string(500, 'k'));
             int s = 0;
             store->SetObject(object, s);
           }
         }
         // Checkpointed on close; scribble over the b-tree pages after the header page.
         std::fstream f(p, std::ios::in | std::ios::out | std::ios::binary);
         f.seekp(4096 + 100);
         f << std::string(20000, '\x5a');
       }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::string path = dir + "/" + c.name + ".db";
    c.damage(path);
    EXPECT_THROW(HyvConfigStore::Open(path, "b"), HostCtlException);
  }
  std::filesystem::remove_all(dir);
}

// A writer killed at an arbitrary point loses no write that had returned, and
// leaves a database that passes SQLite's own integrity check.
TEST(ConfigStoreCrash, KilledWriterKeepsEveryAcknowledgedWrite) {
  std::string dir = TempDir();
  std::string path = dir + "/configstore.db";
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    auto store = HyvConfigStore::Open(path, "b");
    for (uint32_t i = 0;; ++i) {
      ConfigStoreObject object(Ek("ek" + std::to_string(i)));
      object.SetValue("public_key", std::string(300 + i % 700, 'k'));
      int s = 0;
      store->SetObject(object, s);
      if (write(fds[1], &i, sizeof(i)) != sizeof(i)) {
        _exit(1);
      }
    }
  }
  close(fds[1]);
  uint32_t acked = 0;
  uint32_t last = 0;
  while (acked < 150 && read(fds[0], &last, sizeof(last)) == sizeof(last)) {
    ++acked;
  }
  kill(child, SIGKILL);
  // Acknowledgements already in the pipe were also written before the kill.
  while (read(fds[0], &last, sizeof(last)) == sizeof(last)) {
    ++acked;
  }
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_GE(acked, 150u);

  auto store = HyvConfigStore::Open(path, "b");
  for (uint32_t i = 0; i < acked; ++i) {
    ASSERT_NE(nullptr, store->GetObject(Ek("ek" + std::to_string(i)))) << i;
  }
  store.reset();
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  std::string verdict;
  sqlite3_exec(
      db, "PRAGMA integrity_check",
      [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0];
        return 0;
      },
      &verdict, nullptr);
  sqlite3_close(db);
  EXPECT_EQ("ok", verdict);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace HyvConfig
