// Configuration import over arbitrary text, into a real store in a scratch
// sysroot holding a signing key pair. Invariants: the answer is kConfigOk or
// kConfigError; the signing key pair is never replaced or deleted; whatever
// an import accepted exports to a text that imports again.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "config/SigningKey.h"
#include "transfer/ConfigTransfer.h"
#include "platform/Log.h"

using namespace Witnessd::Config;
using namespace Witnessd::Transfer;

namespace {

constexpr const char* kKey = "fuzz signing key";

std::string& Sysroot() {
  static std::string dir;
  return dir;
}

bool SetUp() {
  Sysroot() = (std::filesystem::temp_directory_path() / "config-import-XXXXXX").string();
  if (mkdtemp(Sysroot().data()) == nullptr) {
    std::abort();
  }
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(Sysroot(), ignored);
  });
  setenv("WITNESSD_SYSROOT", Sysroot().c_str(), 1);
  Log_SetMaxLevel(kLogPanic);  // every refused input logs its reason
  InitConfigLocks();
  if (!SaveSigningKey("fuzz certificate", kKey)) {
    std::abort();
  }
  return true;
}

void CheckSigningKey() {
  std::string key;
  if (!ReadConfigValue(kKeyCertificate, kComponent, kGroup, "private_key", key) || key != kKey) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = SetUp();
  (void)ready;
  std::string text(reinterpret_cast<const char*>(data), size);
  ConfigResult result = ImportConfiguration(text);
  if (result != ConfigResult::kConfigOk && result != ConfigResult::kConfigError) {
    std::abort();
  }
  CheckSigningKey();
  if (result == ConfigResult::kConfigOk) {
    std::string exported, hash;
    if (!ExportConfiguration(exported, hash) || ImportConfiguration(exported) != ConfigResult::kConfigOk) {
      std::abort();
    }
  }
  return 0;
}
