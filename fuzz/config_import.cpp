// Configuration import over arbitrary text, into a real store in a scratch
// directory holding a signing key pair. Invariants: the answer is kConfigOk or
// kConfigError; the signing key pair is never replaced or deleted; whatever
// an import accepted exports to a text that imports again.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "config/SigningKey.h"
#include "platform/Log.h"
#include "transfer/ConfigTransfer.h"

using namespace Witnessd::Config;
using namespace Witnessd::Transfer;

namespace {

constexpr const char* kKey = "fuzz signing key";

// What the daemon would build, over a store in a scratch directory.
struct Daemon {
  std::string dir;
  Store store;
  StatusConditions conditions;
  std::unique_ptr<SigningKeys> keys;
  std::unique_ptr<Tpm2::TrustConfiguration> trust;
  std::unique_ptr<Witnessd::Trusted::BaseImageStore> images;
  std::unique_ptr<ConfigTransfer> transfer;
};

Daemon& Make() {
  static Daemon d;
  d.dir = (std::filesystem::temp_directory_path() / "config-import-XXXXXX").string();
  if (mkdtemp(d.dir.data()) == nullptr) {
    std::abort();
  }
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(d.dir, ignored);
  });
  Log_SetMaxLevel(kLogPanic);  // every refused input logs its reason
  d.store = HyvConfig::HyvConfigStore::Open(d.dir + "/configstore.db");
  d.keys = std::make_unique<SigningKeys>(d.store);
  d.trust = std::make_unique<Tpm2::TrustConfiguration>(d.store);
  d.images = std::make_unique<Witnessd::Trusted::BaseImageStore>(d.store, d.conditions);
  d.transfer = std::make_unique<ConfigTransfer>(d.store, *d.keys, *d.trust, *d.images);
  if (!d.keys->Save("fuzz certificate", kKey)) {
    std::abort();
  }
  return d;
}

void CheckSigningKey(Daemon& d) {
  std::string key;
  if (!ReadConfigValue(*d.store, kKeyCertificate, kComponent, kGroup, "private_key", key) || key != kKey) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Daemon& d = Make();
  std::string text(reinterpret_cast<const char*>(data), size);
  ConfigResult result = d.transfer->Import(text);
  if (result != ConfigResult::kConfigOk && result != ConfigResult::kConfigError) {
    std::abort();
  }
  CheckSigningKey(d);
  if (result == ConfigResult::kConfigOk) {
    std::optional<ConfigTransfer::Exported> exported = d.transfer->Export();
    if (!exported || d.transfer->Import(exported->text) != ConfigResult::kConfigOk) {
      std::abort();
    }
  }
  return 0;
}
