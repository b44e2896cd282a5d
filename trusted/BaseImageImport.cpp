#include "trusted/BaseImageImport.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "config/Configuration.h"
#include "platform/Log.h"
#include "platform/System.h"
#include "platform/ssl/SslUtils.h"
#include "trusted/BaseImageStore.h"
#include "trusted/MetadataImport.h"
#include "verify/CryptoUtil.h"

namespace Witnessd::Trusted {

using namespace Config;

namespace {

using HostCtl::Lib::HostCtlException;
using HyvConfig::ConfigStoreObject;
using Verify::ByteView;

constexpr const char* kBasePak = "hyv-base";
constexpr const char* kUpdatePak = "hyv-update";

ByteView View(const std::string& bytes) {
  return ByteView{bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data())};
}

bool ReadMakerCertificates(std::string& out) {
  std::ifstream in(Hearth::SysrootPath(Verify::kMakerCertPath), std::ios::binary);
  if (!in) {
    return false;
  }
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad() && !out.empty();
}

bool Decompress(const std::vector<uint8_t>& compressed, std::string& tar) {
  using Orm::Common::Gzip;
  Gzip::Outcome outcome = Gzip::Decompress(compressed.data(), compressed.size(), tar);
  switch (outcome.stage) {
    case Gzip::Stage::kDone:
      return true;
    case Gzip::Stage::kInit:
      Log_Level(kLogError, "Decompression initialization failed, error: %d\n", outcome.zlib_code);
      break;
    case Gzip::Stage::kEmptyInput:
      Log_Level(kLogError, "Input buffer to be decompressed is empty\n");
      break;
    case Gzip::Stage::kInflate:
      Log_Level(kLogError, "Error in decompressing, zlib error: %d\n", outcome.zlib_code);
      break;
  }
  Log_Level(kLogError, "Failed to decompress buffer\n");
  return false;
}

// ToPakEntry copies the properties and the payload table into the stored
// form, payloads ordered by file name so that equal imports store equally.
// False for too many checksums or one that is not a well-formed digest.
bool ToPakEntry(const PakProperties& properties, const PayloadTable& table, PakEntry& out) {
  PakEntry pak{properties.name, properties.version, properties.vendor, properties.type, properties.summary, {}};
  std::vector<const PayloadRecord*> records;
  for (const auto& [key, record] : table) {
    if (record.checksum_count > Trusted::kMaxPayloadChecksums) {
      return false;
    }
    records.push_back(&record);
  }
  std::sort(records.begin(), records.end(), [](const PayloadRecord* a, const PayloadRecord* b) {
    return std::string_view(a->file_name) < std::string_view(b->file_name) ||
           (std::string_view(a->file_name) == std::string_view(b->file_name) &&
            std::string_view(a->name) < std::string_view(b->name));
  });
  for (const PayloadRecord* record : records) {
    PayloadEntry& payload = pak.payloads.emplace_back();
    payload.name = record->name;
    payload.file_name = record->file_name;
    for (uint32_t i = 0; i < record->checksum_count; ++i) {
      const auto& sum = record->checksums[i];
      payload.checksums.push_back({sum.checksum, sum.checksum_type, sum.verify_process});
      if (!ChecksumWellFormed(payload.checksums.back())) {
        Log_Level(kLogError, "Checksum of payload %s is not a well-formed digest\n", record->name);
        return false;
      }
    }
  }
  out = std::move(pak);
  return true;
}

// AddBaseImage runs as a BaseImageStore::Write, so no other writer comes
// between the existence test and the write.
ImportResult AddBaseImage(HyvConfig::HyvConfigStore& store, const std::string& tar, const std::string& certs,
                          const PakProperties (&properties)[2], const std::string& version) {
  static const char* const kPaks[] = {kBasePak, kUpdatePak};
  const HyvConfig::ConfigStoreObjectId id = MakeId(kKeyBaseImages, version);
  try {
    if (store.GetObject(id) != nullptr) {
      Log_Level(kLogError, "The HYV base image version '%s' already exists\n", version.c_str());
      return ImportResult::kVersionExists;
    }
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Exception reading/writing the HYV base image version %s to configstore: %s\n",
              version.c_str(), e.what());
    return ImportResult::kFailed;
  }

  ConfigStoreObject image(id);
  image.SetValue("version", version);
  for (size_t i = 0; i < 2; ++i) {
    PayloadTable table;
    if (Trusted::ImportPakMetadata(View(tar), View(certs), kPaks[i], &table) != 0) {
      Log_Level(kLogError, "Failed to parse imgdb tar to get PAK metadata Hashtable\n");
      return ImportResult::kFailed;
    }
    PakEntry pak;
    if (!ToPakEntry(properties[i], table, pak)) {
      Log_Level(kLogError, "Hashtable callback failed to set PAK metadata\n");
      return ImportResult::kFailed;
    }
    try {
      if (!AddPakToBaseImage(image, pak)) {
        Log_Level(kLogError, "Failed to create %s object in the configstore\n", kPaks[i]);
        Log_Level(kLogError, "Configstore subObject pak is null\n");
        return ImportResult::kFailed;
      }
    } catch (const HostCtlException& e) {
      Log_Level(kLogError, "Exception writing the HYV base image schema for version '%s' to configstore: %s\n",
                version.c_str(), e.what());
      return ImportResult::kFailed;
    }
  }
  try {
    int status = 0;
    store.SetObject(image, status);
  } catch (const HostCtlException& e) {
    Log_Level(kLogError, "Failed to set the HYV metadata for base image version '%s' in the configstore; %s\n",
              version.c_str(), e.what());
    return ImportResult::kFailed;
  }
  return ImportResult::kImported;
}

}  // namespace

ImportResult ImportBaseImage(BaseImageStore& images, const std::vector<uint8_t>& compressed, std::string& out_version) {
  std::string certs;
  if (!ReadMakerCertificates(certs)) {
    Log_Level(kLogError, "Failed to read Quarro certificate\n");
    return ImportResult::kFailed;
  }
  std::string tar;
  if (!Decompress(compressed, tar)) {
    return ImportResult::kFailed;
  }

  PakProperties properties[2];
  const char* const paks[] = {kBasePak, kUpdatePak};
  for (size_t i = 0; i < 2; ++i) {
    // A base image is known by its version: one without a version is refused.
    if (Trusted::GetPakProperties(View(tar), paks[i], &properties[i]) != 0 || properties[0].version[0] == '\0') {
      Log_Level(kLogError, "Failed to get the HYV base image info; %s\n", paks[i]);
      Log_Level(kLogError, "Failed to import HYV metadata as a new trusted base image in the configstore\n");
      return ImportResult::kFailed;
    }
  }
  const std::string version = properties[0].version;

  ImportResult result = ImportResult::kFailed;
  images.Write(
      [&](HyvConfig::HyvConfigStore& store) { result = AddBaseImage(store, tar, certs, properties, version); });
  if (result != ImportResult::kImported) {
    Log_Level(kLogError, "Failed to import HYV metadata as a new trusted base image in the configstore\n");
  } else {
    Log_Level(kLogInfo, "Imported HYV base image version '%s'\n", version.c_str());
  }
  if (result != ImportResult::kFailed) {
    out_version = version;
  }
  return result;
}

}  // namespace Witnessd::Trusted
