#include "config/Configuration.h"

#include <atomic>

#include "config/SigningKey.h"
#include "platform/Assert.h"
#include "platform/Log.h"

namespace Witnessd::Config {
namespace {

static constexpr const char* kSourcePath = "apps/witnessd/config/configuration";

MXUserRWLock* CreateLock(const char* name, uint32_t rank) {
  MXUserRWLock* lock = MXUser_CreateRWLock(name, rank);
  VERIFY(lock != nullptr);
  return lock;
}

// Atomic so that a holder of the configuration lock in shared mode may write
// a condition without racing concurrent readers.
std::atomic<bool> g_status_conditions[kNumStatusConditions];

}  // namespace

HyvConfig::ConfigStoreObjectId MakeId(const std::string& key, const std::string& instance) {
  return HyvConfig::ConfigStoreObjectId(key, kComponent, kGroup, instance);
}

std::vector<std::string> ReadInstanceNames(const std::string& key) {
  HyvConfig::FilterSpecObject filter(HyvConfig::ConfigStoreObjectId(key, kComponent, kGroup));
  auto store = HyvConfig::ConfigStore::GetStore(HyvConfig::ConfigStore::sGlobalNamespace);
  std::vector<std::string> names;
  for (const HyvConfig::ConfigStoreObjectPtr& object : store->GetObjectInstances(filter)) {
    std::string name;
    object->GetValue("name", &name);
    names.push_back(std::move(name));
  }
  return names;
}

bool RecordNameValid(const std::string& name) {
  if (name.size() > kMaxRecordNameBytes) {
    return false;
  }
  for (char c : name) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f || c == '/') {
      return false;
    }
  }
  return true;
}

ConfigResult ReadNamedRecord(const std::string& key, const std::string& name, const NamedRecordTexts& texts,
                             HyvConfig::ConfigStoreObjectPtr& out) {
  try {
    out = HyvConfig::ConfigStore::GetStore(HyvConfig::ConfigStore::sGlobalNamespace)->GetObject(MakeId(key, name));
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.read_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
  if (out == nullptr) {
    Log_Level(kLogError, texts.missing, name.c_str());
    return ConfigResult::kConfigNotFound;
  }
  return ConfigResult::kConfigOk;
}

ConfigResult ListNamedRecords(const std::string& key, const NamedRecordTexts& texts, std::vector<std::string>& out) {
  try {
    out = ReadInstanceNames(key);
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.list_failed, e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult WriteNamedRecord(HyvConfig::ConfigStoreObject& record, const std::string& name,
                              const NamedRecordTexts& texts) {
  try {
    record.SetValue("name", name);
    int status = 0;
    HyvConfig::ConfigStore::GetStore(HyvConfig::ConfigStore::sGlobalNamespace)->SetObject(record, status);
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.write_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult DeleteNamedRecord(const std::string& key, const std::string& name, const NamedRecordTexts& texts) {
  try {
    auto store = HyvConfig::ConfigStore::GetStore(HyvConfig::ConfigStore::sGlobalNamespace);
    if (store->GetObject(MakeId(key, name)) == nullptr) {
      Log_Level(kLogError, texts.delete_missing, name.c_str());
      return ConfigResult::kConfigNotFound;
    }
    store->DeleteObject(MakeId(key, name));
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.delete_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

MXUserRWLock* ConfigLock() {
  static MXUserRWLock* lock = CreateLock("configLock", kConfigLockRank);
  return lock;
}

MXUserRWLock* EkMapLock() {
  static MXUserRWLock* lock = CreateLock("ekMapLock", kEkMapLockRank);
  return lock;
}

void InitConfigLocks() {
  ConfigLock();
  EkMapLock();
}

void SetStatusCondition(int index, bool value) {
  if (index < 0 || index >= kNumStatusConditions) {
    return;
  }
  if (MXUser_IsCurThreadHoldingRWLock(ConfigLock())) {
    g_status_conditions[index] = value;
    return;
  }
  MXUser::WriteGuard guard(ConfigLock());
  g_status_conditions[index] = value;
}

std::vector<int> GetStatusConditions() {
  MXUser::ReadGuard guard(ConfigLock());
  std::vector<int> set;
  for (int i = 0; i < kNumStatusConditions; ++i) {
    if (g_status_conditions[i]) {
      set.push_back(i);
    }
  }
  return set;
}

void ResetConfigurationForTesting() {
  for (std::atomic<bool>& condition : g_status_conditions) {
    condition = false;
  }
  ResetSigningKeyForTesting();
}

}  // namespace Witnessd::Config
