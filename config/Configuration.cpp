#include "config/Configuration.h"

#include "platform/Log.h"

namespace Witnessd::Config {

HyvConfig::ConfigStoreObjectId MakeId(const std::string& key, const std::string& instance) {
  return HyvConfig::ConfigStoreObjectId(key, kComponent, kGroup, instance);
}

std::vector<std::string> ReadInstanceNames(HyvConfig::HyvConfigStore& store, const std::string& key) {
  HyvConfig::FilterSpecObject filter(HyvConfig::ConfigStoreObjectId(key, kComponent, kGroup));
  std::vector<std::string> names;
  for (const HyvConfig::ConfigStoreObjectPtr& object : store.GetObjectInstances(filter)) {
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

ConfigResult ReadNamedRecord(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& name,
                             const NamedRecordTexts& texts, HyvConfig::ConfigStoreObjectPtr& out) {
  try {
    out = store.GetObject(MakeId(key, name));
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

ConfigResult ListNamedRecords(HyvConfig::HyvConfigStore& store, const std::string& key, const NamedRecordTexts& texts,
                              std::vector<std::string>& out) {
  try {
    out = ReadInstanceNames(store, key);
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.list_failed, e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult WriteNamedRecord(HyvConfig::HyvConfigStore& store, HyvConfig::ConfigStoreObject& record,
                              const std::string& name, const NamedRecordTexts& texts) {
  try {
    record.SetValue("name", name);
    int status = 0;
    store.SetObject(record, status);
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.write_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult DeleteNamedRecord(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& name,
                               const NamedRecordTexts& texts) {
  try {
    if (store.GetObject(MakeId(key, name)) == nullptr) {
      Log_Level(kLogError, texts.delete_missing, name.c_str());
      return ConfigResult::kConfigNotFound;
    }
    store.DeleteObject(MakeId(key, name));
    return ConfigResult::kConfigOk;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Log_Level(kLogError, texts.delete_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

void StatusConditions::Set(int index, bool value) {
  if (index >= 0 && index < kNumStatusConditions) {
    conditions_[index] = value;
  }
}

std::vector<int> StatusConditions::Get() const {
  std::vector<int> set;
  for (int i = 0; i < kNumStatusConditions; ++i) {
    if (conditions_[i]) {
      set.push_back(i);
    }
  }
  return set;
}

}  // namespace Witnessd::Config
