// The trusted base images: stored as "hyv_base_images" records, one instance
// per version, and cached in memory on first use so that a session can go from
// the Hvkernel digest in a host's event log to its base image and payload
// checksums.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "verify/EventLog.h"

namespace Witnessd::Trusted {

using Config::ConfigResult;

// Layout of a stored base image (instance id = version):
//   "version", "last_attested_time"               strings
//   sub-objects "paks" (key: package name)       "name", "version", "vendor", "type", "summary"
//     sub-objects "payloads" (key: payload name) "name", "file_name"
//       sub-objects "checksums" (key: position)  "checksum", "checksum_type", "verify_process"
inline constexpr const char* kSubPaks = "paks";
inline constexpr const char* kSubPayloads = "payloads";
inline constexpr const char* kSubChecksums = "checksums";

struct ChecksumEntry {
  std::string checksum;
  std::string checksum_type;
  std::string verify_process;
};
struct PayloadEntry {
  std::string name;
  std::string file_name;
  std::vector<ChecksumEntry> checksums;
};
struct PakEntry {
  std::string name;
  std::string version;
  std::string vendor;
  std::string type;
  std::string summary;
  std::vector<PayloadEntry> payloads;
};

// ChecksumWellFormed: |checksum| is non-empty hexadecimal of at most 255
// characters, and exactly 64 when its type is "sha-256" (the digests that
// attestation compares). Both the image import and the configuration import
// store only checksums that pass.
bool ChecksumWellFormed(const ChecksumEntry& checksum);

// AddPakToBaseImage writes |pak| as a new package sub-object of |image| in the
// layout above. Returns false when a sub-object cannot be created.
bool AddPakToBaseImage(HyvConfig::ConfigStoreObject& image, const PakEntry& pak);

// What the daemon trusts about one stored base image; shared between the cache
// and callers holding it.
struct BaseImageData {
  std::string version;
  // "checksum" of payload "k" of package "hyv-base", sha-256 / gunzip.
  std::string hvkernel_digest;
  // "checksum" of payload "b" of package "hyv-base", sha-256 / txt-mle.
  std::string txt_mle_digest;
  // Every sha-256 / gunzip checksum of every package, by payload file name.
  std::shared_ptr<const Verify::PayloadChecksumTable> payload_checksums;
};

// One stored base image as written by the import, for the administration
// service.
struct StoredBaseImage {
  std::string version;
  std::string last_attested_time;  // empty when never attested
  std::vector<PakEntry> paks;
};

// The stored base images and, in memory, what attestation needs of them:
// owned by the daemon, passed to the session manager, the base image
// service and the configuration transfer.
class BaseImageStore {
 public:
  // |status| receives the load-error condition.
  BaseImageStore(Config::Store store, Config::StatusConditions& status);
  ~BaseImageStore();
  BaseImageStore(const BaseImageStore&) = delete;
  BaseImageStore& operator=(const BaseImageStore&) = delete;

  // Load loads the cache at start-up, so a damaged record shows in the log
  // and the status at once rather than on the first attestation.
  void Load();

  // Lookup finds the first cached base image whose Hvkernel digest is
  // |hvkernel_digest|, loading the cache first when it is empty; null when
  // nothing matches. What it returns stays valid after the cache is cleared.
  std::shared_ptr<const BaseImageData> Lookup(const std::string& hvkernel_digest);

  // ClearCache drops the cache so the next lookup reloads it; every change
  // of the stored base images calls it.
  void ClearCache();

  // Write runs |write| on the store while no other writer of the base image
  // records (an import, a delete, a last-attested-time update, a whole
  // configuration import) runs, then clears the cache however |write| ends.
  // |write| catches and logs its own store failures.
  void Write(const std::function<void(HyvConfig::HyvConfigStore&)>& write);

  // UpdateLastAttestedTime stores the current UTC time as
  // "last_attested_time" of base image |version|.
  void UpdateLastAttestedTime(const std::string& version);

  // List returns the stored versions in store order.
  ConfigResult List(std::vector<std::string>& out_versions) const;
  // Read reads stored base image |version| whole: kConfigOk,
  // kConfigNotFound, or kConfigError when the store fails.
  ConfigResult Read(const std::string& version, StoredBaseImage& out) const;
  // Delete removes stored base image |version| and clears the cache:
  // kConfigOk, kConfigNotFound, or kConfigError when the store fails.
  ConfigResult Delete(const std::string& version);

  HyvConfig::HyvConfigStore& Store() const { return *store_; }

 private:
  // The implementation keeps the cache, the per-version records and their
  // locks here (see BaseImageStore.cpp).
  struct State;
  const Config::Store store_;
  Config::StatusConditions& status_;
  std::unique_ptr<State> state_;
};

// FormatAttestedTime prints |usec| since the epoch as "YYYY-MM-DDTHH:MM:SSZ".
std::string FormatAttestedTime(int64_t usec);

}  // namespace Witnessd::Trusted
