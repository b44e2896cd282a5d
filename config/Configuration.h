// The configuration layer's shared pieces: result codes, record identity, the
// named-record helpers over a store the caller passes in, and the status
// conditions.
#pragma once

#include <cstddef>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/configstore/ConfigStore.h"

namespace Witnessd::Config {

// The configuration store every object of this layer reads and writes;
// opened once by the daemon and passed in.
using Store = std::shared_ptr<HyvConfig::HyvConfigStore>;

// Result codes of the configuration layer, returned to the API services.
enum class ConfigResult : int {
  kConfigOk = 0,
  kConfigAlreadyExists = 1,
  kConfigInvalidArgument = 2,
  kConfigNotFound = 3,
  kConfigError = 4,
  kConfigDuplicate = 5,
  kConfigLimitReached = 6,
  kConfigInvalidData = 7,
};

// Every record of the service lives under this component and group.
inline constexpr const char* kComponent = "attestation";
inline constexpr const char* kGroup = "hyv";

inline constexpr const char* kKeyTpm2Settings = "tpm2_settings";
inline constexpr const char* kKeyEndorsementKeys = "tpm2_endorsement_keys";
inline constexpr const char* kKeyCaCertificates = "tpm2_ca_certificates";
inline constexpr const char* kKeyCertificate = "certificate";
inline constexpr const char* kKeyBaseImages = "hyv_base_images";

// MakeId builds the id of a record of this service; |instance| is the item's
// name for multi-instance keys.
HyvConfig::ConfigStoreObjectId MakeId(const std::string& key, const std::string& instance = "");

// ReadInstanceNames returns the "name" field of every instance of |key|, in
// the store's order. Throws HostCtlException; callers log and map it.
std::vector<std::string> ReadInstanceNames(HyvConfig::HyvConfigStore& store, const std::string& key);

// Named records (EKs, CA chains): one instance of a key per name. Each kind
// keeps its own log lines, given as printf formats taking the record's name
// and, where the store failed, the store's reason. The caller holds the
// configuration lock.
struct NamedRecordTexts {
  const char* missing;         // (name) a read found no record
  const char* read_failed;     // (name, reason)
  const char* list_failed;     // (reason)
  const char* delete_missing;  // (name) a delete found no record
  const char* delete_failed;   // (name, reason)
  const char* write_failed;    // (name, reason)
};

// The longest name of a named record (or base image version), in bytes.
inline constexpr size_t kMaxRecordNameBytes = 255;
// RecordNameValid is true when |name| may name a record: at most
// kMaxRecordNameBytes bytes, no control characters, no "/". The empty name
// passes: each caller refuses it with its own message. The API reads names
// with it and the configuration import holds imported records to it.
bool RecordNameValid(const std::string& name);

// ReadNamedRecord sets |out| to the record |name| of |key|: kConfigOk,
// kConfigNotFound or kConfigError (each failure logged).
ConfigResult ReadNamedRecord(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& name, const NamedRecordTexts& texts,
                             HyvConfig::ConfigStoreObjectPtr& out);
// ListNamedRecords gives the names of |key|'s records in store order.
ConfigResult ListNamedRecords(HyvConfig::HyvConfigStore& store, const std::string& key, const NamedRecordTexts& texts, std::vector<std::string>& out);
// WriteNamedRecord stores |record| (its "name" field set here); kConfigError
// when the store fails.
ConfigResult WriteNamedRecord(HyvConfig::HyvConfigStore& store, HyvConfig::ConfigStoreObject& record, const std::string& name,
                              const NamedRecordTexts& texts);
// DeleteNamedRecord removes record |name| of |key|: kConfigOk,
// kConfigNotFound or kConfigError.
ConfigResult DeleteNamedRecord(HyvConfig::HyvConfigStore& store, const std::string& key, const std::string& name, const NamedRecordTexts& texts);

// Status conditions, indexed 0 to 5, all false at start. 0-4 are computed by
// the status service; 5 is owned by the base image store.
enum StatusCondition : int {
  kStatusInvalidTpm2Settings = 0,
  kStatusTpmCaUnset = 1,
  kStatusTpmEkUnset = 2,
  kStatusTpmDupCa = 3,
  kStatusTrustedSoftwareUnset = 4,
  kStatusBaseImagesLoadError = 5,
};
inline constexpr int kNumStatusConditions = 6;

// The status conditions the status service reports: 0-4 computed by it on
// each call, 5 set by the base image store. Owned by the daemon and passed
// to both; each condition is an atomic flag, so setting one never waits.
class StatusConditions {
 public:
  // Set sets or clears one condition; an index outside 0-5 is ignored.
  void Set(int index, bool value);
  // Get returns the indices of the set conditions, ascending.
  std::vector<int> Get() const;

 private:
  std::atomic<bool> conditions_[kNumStatusConditions] = {};
};

}  // namespace Witnessd::Config
