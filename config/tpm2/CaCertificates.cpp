#include "config/tpm2/CaCertificates.h"

#include <mutex>

#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {
namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObject;
using HyvConfig::ConfigStoreObjectPtr;
using HyvConfig::SubObjectId;
using Orm::Common::SslUtils;

constexpr const char* kChainSubObject = "cert_chain";

// Guarded by the configuration lock; the list it points to is immutable.
CaCertList g_all_ca = std::make_shared<const std::vector<std::string>>();

// The trust store of the list it was built from. Holding that list keeps its
// address from being reused, so comparing addresses tells a changed list.
struct ParsedCas {
  CaCertList list;
  Orm::Common::TrustStore store;
};
std::mutex g_parsed_mutex;
ParsedCas g_parsed;  // guarded by g_parsed_mutex

constexpr NamedRecordTexts kCaTexts = {
    "CA Certificate name: %s does not exist in configstore.\n",
    "Exception reading CA certificate '%s' from configstore: %s\n",
    "Exception reading CA certificate list from configstore: %s\n",
    "CA Cerfificates '%s' not found\n",  // misspelling kept on purpose
    "Exception deleting CA Certificate '%s' from configstore: %s\n",
    "Exception writing CA certificate '%s' to configstore: %s\n",
};

// ReadChain reads the stored chain of |name|. The caller holds the
// configuration lock.
ConfigResult ReadChain(const std::string& name, std::vector<std::string>& out_certs) {
  ConfigStoreObjectPtr object;
  ConfigResult result = ReadNamedRecord(kKeyCaCertificates, name, kCaTexts, object);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  try {
    ConfigStoreObjectPtr chain = object->GetSubObject(SubObjectId(kChainSubObject));
    if (chain == nullptr) {
      Log_Level(kLogError, "Unable to create ConfigStoreObjectPtr for certChain.\n");
      return ConfigResult::kConfigError;
    }
    chain->GetValue("certs", &out_certs);
    return ConfigResult::kConfigOk;
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, kCaTexts.read_failed, name.c_str(), e.what());
    return ConfigResult::kConfigError;
  }
}

ConfigResult ListChains(std::vector<std::string>& out_names) {
  return ListNamedRecords(kKeyCaCertificates, kCaTexts, out_names);
}

}  // namespace

ConfigResult GetCaCertificates(const std::string& name, std::vector<std::string>& out_certs) {
  MXUser::ReadGuard guard(ConfigLock());
  std::vector<std::string> certs;
  ConfigResult result = ReadChain(name, certs);
  if (result != ConfigResult::kConfigOk) {
    return result;
  }
  for (std::string& cert : certs) {
    if (!SslUtils::StandardizePemCert(cert)) {
      Log_Level(kLogError, "Failed to standardize TPM CA Certificate: %s\n", name.c_str());
      return ConfigResult::kConfigInvalidData;
    }
  }
  out_certs = std::move(certs);
  return ConfigResult::kConfigOk;
}

ConfigResult ListCaCertificates(std::vector<std::string>& out_names) {
  MXUser::ReadGuard guard(ConfigLock());
  return ListChains(out_names);
}

ConfigResult AddCaCertificates(const std::string& name, const std::vector<std::string>& certs) {
  MXUser::WriteGuard guard(ConfigLock());
  std::vector<std::string> existing;
  ConfigResult result = ReadChain(name, existing);
  if (result == ConfigResult::kConfigOk) {
    return ConfigResult::kConfigAlreadyExists;
  }
  if (result != ConfigResult::kConfigNotFound) {
    return result;
  }
  ConfigStoreObject object(MakeId(kKeyCaCertificates, name));
  ConfigStoreObjectPtr chain = object.CreateSubObject(SubObjectId(kChainSubObject));
  if (chain == nullptr) {
    Log_Level(kLogError, "Unable to create ConfigStoreObjectPtr for certChain.\n");
    return ConfigResult::kConfigError;
  }
  chain->SetValue("certs", certs);
  if (WriteNamedRecord(object, name, kCaTexts) != ConfigResult::kConfigOk) {
    return ConfigResult::kConfigError;
  }
  // Deliberately incremental, even onto a list not built yet: the new chain is
  // usable at once, and the next delete or load rebuilds from the store.
  auto updated = std::make_shared<std::vector<std::string>>(*g_all_ca);
  for (std::string cert : certs) {
    SslUtils::StandardizePemCert(cert);  // appended in whatever form it is left
    updated->push_back(std::move(cert));
  }
  g_all_ca = std::move(updated);
  return ConfigResult::kConfigOk;
}

ConfigResult DeleteCaCertificates(const std::string& name) {
  MXUser::WriteGuard guard(ConfigLock());
  ResetCaCache();  // whether or not the delete succeeds
  return DeleteNamedRecord(kKeyCaCertificates, name, kCaTexts);
}

CaCertList GetAllCaCertificates() {
  {
    MXUser::ReadGuard guard(ConfigLock());
    if (!g_all_ca->empty()) {
      return g_all_ca;
    }
  }
  MXUser::WriteGuard guard(ConfigLock());
  if (!g_all_ca->empty()) {
    return g_all_ca;  // built by another thread meanwhile
  }
  std::vector<std::string> names;
  if (ListChains(names) != ConfigResult::kConfigOk) {
    return nullptr;
  }
  auto all = std::make_shared<std::vector<std::string>>();
  for (const std::string& name : names) {
    std::vector<std::string> chain;
    if (ReadChain(name, chain) != ConfigResult::kConfigOk) {
      return nullptr;
    }
    bool usable = true;
    for (std::string& cert : chain) {
      if (!SslUtils::StandardizePemCert(cert)) {
        Log_Level(kLogWarning, "Failed to standardize TPM CA Certificate: %s\n", name.c_str());
        usable = false;
        break;
      }
    }
    if (usable) {
      all->insert(all->end(), chain.begin(), chain.end());
    }
  }
  g_all_ca = std::move(all);
  return g_all_ca;
}

Orm::Common::TrustStore GetCaTrustStore() {
  CaCertList list = GetAllCaCertificates();
  if (list == nullptr) {
    return nullptr;
  }
  {
    std::lock_guard<std::mutex> lock(g_parsed_mutex);
    if (g_parsed.list == list) {
      return g_parsed.store;
    }
  }
  // Parsed outside the lock; a thread that built the same list meanwhile
  // only wastes its work.
  Orm::Common::TrustStore store = SslUtils::BuildTrustStore(*list);
  if (store != nullptr) {
    std::lock_guard<std::mutex> lock(g_parsed_mutex);
    g_parsed = {list, store};
  }
  return store;
}

void ResetCaCache() {
  g_all_ca = std::make_shared<const std::vector<std::string>>();
}

}  // namespace Witnessd::Config::Tpm2
