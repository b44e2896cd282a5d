#include "trusted/BaseImageStore.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::Trusted {

using namespace Config;

namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::SubObjectId;

static constexpr const char* kSourcePath = "apps/witnessd/trusted/baseImageStore";

constexpr const char* kCorePak = "hyv-base";
constexpr const char* kHvkernelPayload = "k";
constexpr const char* kTxtMlePayload = "b";
constexpr const char* kSha256 = "sha-256";
constexpr const char* kGunzip = "gunzip";
constexpr const char* kTxtMle = "txt-mle";

// The per-version record through which the last attested time is written.
struct AttestationRecord {
  HyvConfig::ConfigStoreObjectId id;
  // The "last_attested_time" this process last stored: attestations within
  // the same second store the same text, so only the first one writes it.
  std::string last_written;
};

// Each reader below logs the field it failed on and rethrows, so the caller
// can tell "this base image failed" from "the whole record failed".
void ReadChecksums(const ConfigStoreObject& payload, const std::string& pak_name, const std::string& file_name,
                   BaseImageData& data, Verify::PayloadChecksumTable& table) {
  try {
    std::string name;
    payload.GetValue("name", &name);
    for (const ConfigStoreObjectPtr& sum : payload.GetSubObjects(kSubChecksums)) {
      std::string checksum, type, process;
      sum->GetValue("checksum", &checksum);
      sum->GetValue("checksum_type", &type);
      sum->GetValue("verify_process", &process);
      if (type != kSha256) {
        continue;
      }
      if (process == kGunzip) {
        table.insert_or_assign(file_name, checksum);
      }
      if (pak_name != kCorePak) {
        continue;
      }
      // The later entry in stored order wins.
      if (name == kHvkernelPayload && process == kGunzip) {
        if (!data.hvkernel_digest.empty()) {
          Warning("Duplicate base image Hvkernel digest: %s -> %s\n", data.hvkernel_digest.c_str(),
                  checksum.c_str());
        }
        data.hvkernel_digest = checksum;
      } else if (name == kTxtMlePayload && process == kTxtMle) {
        if (!data.txt_mle_digest.empty()) {
          Warning("Duplicate base image TXT MLE digest: %s -> %s\n", data.txt_mle_digest.c_str(),
                  checksum.c_str());
        }
        data.txt_mle_digest = checksum;
      }
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading checksum data from config store: %s\n", e.what());
    throw;
  }
}

void ReadPayloads(const ConfigStoreObject& pak, BaseImageData& data, Verify::PayloadChecksumTable& table) {
  std::string pak_name;
  std::vector<std::pair<ConfigStoreObjectPtr, std::string>> payloads;
  try {
    pak.GetValue("name", &pak_name);
    for (const ConfigStoreObjectPtr& payload : pak.GetSubObjects(kSubPayloads)) {
      std::string file_name;
      payload->GetValue("file_name", &file_name);
      payloads.emplace_back(payload, std::move(file_name));
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading payload data from config store: %s\n", e.what());
    throw;
  }
  for (const auto& [payload, file_name] : payloads) {
    ReadChecksums(*payload, pak_name, file_name, data, table);
  }
}

// LoadOne fills a BaseImageData from one stored base image; null when the
// image has no version (skipped) and throws when its packages cannot be read.
std::shared_ptr<BaseImageData> LoadOne(const ConfigStoreObject& image) {
  auto data = std::make_shared<BaseImageData>();
  try {
    image.GetValue("version", &data->version);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base image version from config store: %s\n", e.what());
    throw;
  }
  if (data->version.empty()) {
    Log_Level(kLogError, "Base image has empty version\n");
    return nullptr;
  }
  auto table = std::make_shared<Verify::PayloadChecksumTable>();
  try {
    std::vector<ConfigStoreObjectPtr> paks;
    try {
      paks = image.GetSubObjects(kSubPaks);
    } catch (const HostCtlException& e) {
      Log_Level(kLogError, "Exception reading base image PAKs from config store: %s\n", e.what());
      throw;
    }
    for (const ConfigStoreObjectPtr& pak : paks) {
      ReadPayloads(*pak, *data, *table);
    }
  } catch (const HostCtlException&) {
    Log_Level(kLogError, "Failed to load base PAK data with version %s\n", data->version.c_str());
    throw;
  }
  data->payload_checksums = std::move(table);
  return data;
}

}  // namespace

// The cache and the version map. Lookups scan the cache under a shared lock; a
// load holds it exclusively from reading the store to installing the result,
// so a load that read the records before a write cannot install them after the
// cache clear that follows that write. The writers of the records take
// write_mutex first, then the cache lock, then versions_mutex.
struct BaseImageStore::State {
  std::mutex write_mutex;
  std::shared_mutex cache_mutex;
  std::vector<std::shared_ptr<const BaseImageData>> cache;  // guarded by cache_mutex
  std::mutex versions_mutex;
  std::map<std::string, AttestationRecord> versions;  // guarded by versions_mutex

  // Fill fills the empty cache and version map from |store|. The caller holds
  // cache_mutex exclusively.
  void Fill(HyvConfig::HyvConfigStore& store, StatusConditions& status) {
    std::vector<ConfigStoreObjectPtr> images;
    try {
      images = store.GetObjectInstances(HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages)));
    } catch (const HostCtlException& e) {
      Log_Level(kLogError, "Exception reading base images from config store: %s\n", e.what());
      Log_Level(kLogError, "Failed to load base image configuration\n");
      status.Set(kStatusBaseImagesLoadError, true);
      return;
    }
    bool failed = false;
    std::map<std::string, AttestationRecord> loaded;
    for (const ConfigStoreObjectPtr& image : images) {
      std::shared_ptr<BaseImageData> data;
      try {
        data = LoadOne(*image);
      } catch (const HostCtlException&) {
        failed = true;  // this image is left out; the others still load
        continue;
      }
      if (data == nullptr) {
        continue;
      }
      Log_Level(kLogInfo, "Loaded base image data with version %s and Hvkernel digest %s\n", data->version.c_str(),
                data->hvkernel_digest.c_str());
      loaded.emplace(data->version, AttestationRecord{image->GetConfigStoreObjectId(), {}});
      cache.push_back(std::move(data));
    }
    if (failed) {
      Log_Level(kLogError, "Error loading base image data\n");
    }
    status.Set(kStatusBaseImagesLoadError, failed);
    std::lock_guard versions_lock(versions_mutex);
    versions = std::move(loaded);
  }

  // Scan returns the first cached entry with this digest. The caller holds
  // cache_mutex.
  std::shared_ptr<const BaseImageData> Scan(const std::string& hvkernel_digest) const {
    for (const auto& data : cache) {
      if (data->hvkernel_digest == hvkernel_digest) {
        return data;
      }
    }
    return nullptr;
  }

  // ClearLocked empties the cache and the version map. The caller holds
  // cache_mutex exclusively.
  void ClearLocked() {
    Log_Level(kLogVerbose, "Clearing base images data cache; size=%lu\n", static_cast<unsigned long>(cache.size()));
    cache.clear();
    std::lock_guard versions_lock(versions_mutex);
    versions.clear();
  }
};

BaseImageStore::BaseImageStore(Config::Store store, Config::StatusConditions& status)
    : store_(std::move(store)), status_(status), state_(std::make_unique<State>()) {
  VERIFY(store_ != nullptr);
}

BaseImageStore::~BaseImageStore() = default;

bool ChecksumWellFormed(const ChecksumEntry& checksum) {
  constexpr size_t kMaxChecksumChars = 255;
  constexpr size_t kSha256HexChars = 64;
  const std::string& hex = checksum.checksum;
  if (hex.empty() || hex.size() > kMaxChecksumChars ||
      (checksum.checksum_type == kSha256 && hex.size() != kSha256HexChars)) {
    return false;
  }
  return std::all_of(hex.begin(), hex.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

bool AddPakToBaseImage(HyvConfig::ConfigStoreObject& image, const PakEntry& pak) {
  ConfigStoreObjectPtr pak_object = image.CreateSubObject(SubObjectId(kSubPaks, pak.name));
  if (pak_object == nullptr) {
    return false;
  }
  pak_object->SetValue("name", pak.name);
  pak_object->SetValue("version", pak.version);
  pak_object->SetValue("vendor", pak.vendor);
  pak_object->SetValue("type", pak.type);
  pak_object->SetValue("summary", pak.summary);
  for (const PayloadEntry& payload : pak.payloads) {
    ConfigStoreObjectPtr payload_object = pak_object->CreateSubObject(SubObjectId(kSubPayloads, payload.name));
    if (payload_object == nullptr) {
      return false;
    }
    payload_object->SetValue("name", payload.name);
    payload_object->SetValue("file_name", payload.file_name);
    for (size_t i = 0; i < payload.checksums.size(); ++i) {
      ConfigStoreObjectPtr sum = payload_object->CreateSubObject(SubObjectId(kSubChecksums, std::to_string(i)));
      sum->SetValue("checksum", payload.checksums[i].checksum);
      sum->SetValue("checksum_type", payload.checksums[i].checksum_type);
      sum->SetValue("verify_process", payload.checksums[i].verify_process);
    }
  }
  return true;
}


void BaseImageStore::Load() {
  std::unique_lock lock(state_->cache_mutex);
  state_->ClearLocked();
  state_->Fill(*store_, status_);
}

std::shared_ptr<const BaseImageData> BaseImageStore::Lookup(const std::string& hvkernel_digest) {
  {
    std::shared_lock lock(state_->cache_mutex);
    if (!state_->cache.empty()) {
      return state_->Scan(hvkernel_digest);
    }
  }
  std::unique_lock lock(state_->cache_mutex);
  if (state_->cache.empty()) {  // another thread may have loaded it meanwhile
    state_->Fill(*store_, status_);
  }
  return state_->Scan(hvkernel_digest);
}

void BaseImageStore::ClearCache() {
  std::unique_lock lock(state_->cache_mutex);
  state_->ClearLocked();
}

void BaseImageStore::Write(const std::function<void(HyvConfig::HyvConfigStore&)>& write) {
  std::lock_guard write_lock(state_->write_mutex);
  // Cleared however |write| ends: the next lookup reloads what is stored.
  struct ClearOnExit {
    BaseImageStore& images;
    ~ClearOnExit() { images.ClearCache(); }
  } clear{*this};
  write(*store_);
}

std::string FormatAttestedTime(int64_t usec) {
  time_t seconds = static_cast<time_t>(usec / 1000000);
  struct tm tm {};
  gmtime_r(&seconds, &tm);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

void BaseImageStore::UpdateLastAttestedTime(const std::string& version) {
  int64_t now = 0;
  Hostinfo_GetTimeOfDay(&now);
  const std::string when = FormatAttestedTime(now);
  std::optional<HyvConfig::ConfigStoreObjectId> id;
  {
    std::lock_guard versions_lock(state_->versions_mutex);
    auto it = state_->versions.find(version);
    if (it != state_->versions.end()) {
      if (it->second.last_written == when) {
        return;
      }
      id = it->second.id;
    }
  }
  // Under the write lock so that a delete cannot come between the existence
  // test and the update, which would otherwise create the record again.
  std::lock_guard write_lock(state_->write_mutex);
  try {
    if (!id) {
      id = MakeId(kKeyBaseImages, version);  // not cached (yet): ask the store
    }
    if (store_->GetObject(*id) == nullptr) {
      Log_Level(kLogError, "The HYV base image version '%s' doesn't exist\n", version.c_str());
      return;
    }
    ConfigStoreObject update(*id);
    update.SetValue("last_attested_time", when);
    store_->UpdateObject(*id, update);
    Log_Level(kLogVerbose, "Update attested time %s\n", when.c_str());
    std::lock_guard versions_lock(state_->versions_mutex);
    if (auto it = state_->versions.find(version); it != state_->versions.end()) {
      it->second.last_written = when;
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Failed to set last attested time for %s\n", version.c_str());
  }
}

ConfigResult BaseImageStore::List(std::vector<std::string>& out_versions) const {
  try {
    std::vector<std::string> versions;
    for (const ConfigStoreObjectPtr& image :
         store_->GetObjectInstances(HyvConfig::FilterSpecObject(MakeId(kKeyBaseImages)))) {
      versions.push_back(image->GetConfigStoreObjectId().instance_id);
    }
    out_versions = std::move(versions);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base images from config store: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult BaseImageStore::Read(const std::string& version, StoredBaseImage& out) const {
  try {
    ConfigStoreObjectPtr image = store_->GetObject(MakeId(kKeyBaseImages, version));
    if (image == nullptr) {
      return ConfigResult::kConfigNotFound;
    }
    StoredBaseImage result;
    image->GetValue("version", &result.version);
    image->GetValue("last_attested_time", &result.last_attested_time);  // absent: empty
    for (const ConfigStoreObjectPtr& pak_object : image->GetSubObjects(kSubPaks)) {
      PakEntry& pak = result.paks.emplace_back();
      pak_object->GetValue("name", &pak.name);
      pak_object->GetValue("version", &pak.version);
      pak_object->GetValue("vendor", &pak.vendor);
      pak_object->GetValue("type", &pak.type);
      pak_object->GetValue("summary", &pak.summary);
      for (const ConfigStoreObjectPtr& payload_object : pak_object->GetSubObjects(kSubPayloads)) {
        PayloadEntry& payload = pak.payloads.emplace_back();
        payload_object->GetValue("name", &payload.name);
        payload_object->GetValue("file_name", &payload.file_name);
        for (const ConfigStoreObjectPtr& sum : payload_object->GetSubObjects(kSubChecksums)) {
          ChecksumEntry& checksum = payload.checksums.emplace_back();
          sum->GetValue("checksum", &checksum.checksum);
          sum->GetValue("checksum_type", &checksum.checksum_type);
          sum->GetValue("verify_process", &checksum.verify_process);
        }
      }
    }
    out = std::move(result);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading base image data from config store: %s\n", e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult BaseImageStore::Delete(const std::string& version) {
  ConfigResult result = ConfigResult::kConfigOk;
  Write([&](HyvConfig::HyvConfigStore& store) {
    try {
      if (!store.DeleteObject(MakeId(kKeyBaseImages, version))) {
        result = ConfigResult::kConfigNotFound;
      }
    } catch (const HostCtlException& e) {
      Log_Level(kLogError, "Exception reading/writing the HYV base image version %s to configstore: %s\n",
                version.c_str(), e.what());
      result = ConfigResult::kConfigError;
    }
  });
  return result;
}

}  // namespace Witnessd::Trusted
