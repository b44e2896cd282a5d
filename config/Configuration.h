// The configuration layer's shared pieces: result codes, record identity, the
// two process-wide configuration locks and the status conditions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/MXUser.h"
#include "platform/configstore/ConfigStore.h"

namespace Witnessd::Config {

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
std::vector<std::string> ReadInstanceNames(const std::string& key);

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
ConfigResult ReadNamedRecord(const std::string& key, const std::string& name, const NamedRecordTexts& texts,
                             HyvConfig::ConfigStoreObjectPtr& out);
// ListNamedRecords gives the names of |key|'s records in store order.
ConfigResult ListNamedRecords(const std::string& key, const NamedRecordTexts& texts, std::vector<std::string>& out);
// WriteNamedRecord stores |record| (its "name" field set here); kConfigError
// when the store fails.
ConfigResult WriteNamedRecord(HyvConfig::ConfigStoreObject& record, const std::string& name,
                              const NamedRecordTexts& texts);
// DeleteNamedRecord removes record |name| of |key|: kConfigOk,
// kConfigNotFound or kConfigError.
ConfigResult DeleteNamedRecord(const std::string& key, const std::string& name, const NamedRecordTexts& texts);

// The configuration lock guards every access to this service's records, the
// cached TPM settings, the CA cache, the signing key pair in memory and the
// status conditions. The EK map lock guards the set of configured EK digests and is
// always taken after the configuration lock (their ranks enforce it).
inline constexpr uint32_t kConfigLockRank = 0xFEFFFFFF;
inline constexpr uint32_t kEkMapLockRank = 0xFF000000;

// InitConfigLocks creates both locks; start-up calls it before anything
// else of the layer. Failing to create one panics. The accessors create the
// locks on first use as well, so they never return null.
void InitConfigLocks();
MXUserRWLock* ConfigLock();
MXUserRWLock* EkMapLock();

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

// SetStatusCondition sets or clears one condition, taking the configuration
// lock exclusively unless the calling thread already holds it. An index
// outside 0-5 is ignored.
void SetStatusCondition(int index, bool value);
// GetStatusConditions returns the indices of the set conditions, ascending.
std::vector<int> GetStatusConditions();

// ResetConfigurationForTesting clears the status conditions and the signing
// key pair held in memory.
void ResetConfigurationForTesting();

}  // namespace Witnessd::Config
