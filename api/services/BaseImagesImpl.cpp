#include "api/services/BaseImagesImpl.h"

#include <time.h>

#include "api/errors/ErrorCatalogue.h"
#include "platform/Log.h"
#include "trusted/BaseImageImport.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::AttestApi {
namespace {

using Config::ConfigResult;
namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

std::string ImageName(const std::string& version) {
  return "HYVi " + version;
}

// AttestedTime converts a stored "last_attested_time" to the wire's RFC 3339
// UTC form; absent when never attested or when the stored text is not a
// time this daemon wrote.
std::optional<std::string> AttestedTime(const std::string& stored) {
  if (stored.empty()) {
    return std::nullopt;
  }
  struct tm tm {};
  const char* end = strptime(stored.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm);
  if (end == nullptr || *end != '\0') {
    Warning("Invalid last attested time: %s.\n", stored.c_str());
    return std::nullopt;
  }
  time_t seconds = timegm(&tm);
  // Round trip: refuses out-of-range fields that strptime lets through.
  if (Trusted::FormatAttestedTime(static_cast<int64_t>(seconds) * 1000000) != stored) {
    Warning("Invalid last attested time: %s.\n", stored.c_str());
    return std::nullopt;
  }
  return stored;
}

// NotStored logs the missing version and answers NOT_FOUND.
Lumen::StdError NotStored(const std::string& version) {
  Log_Level(kLogError, "The HYV base image version '%s' not found\n", version.c_str());
  return StdErrors::NotFound({});
}

}  // namespace

void BaseImagesImpl::Import(const std::vector<uint8_t>& imgdb, Callback<std::string> done) {
  if (imgdb.empty()) {
    done(Errors::InvalidArgument(Errors::kBaseImagesInvalidArgument, {"imgdb"}));
    return;
  }
  std::string version;
  switch (Trusted::ImportBaseImage(images_, imgdb, version)) {
    case Trusted::ImportResult::kImported:
      done(version);
      return;
    case Trusted::ImportResult::kVersionExists:
      done(Errors::AlreadyExists(Errors::kBaseImagesAlreadyExists, {version}));
      return;
    case Trusted::ImportResult::kFailed:
      break;
  }
  done(StdErrors::Error());
}

void BaseImagesImpl::List(Callback<std::vector<Summary>> done) {
  std::vector<std::string> versions;
  if (images_.List(versions) != ConfigResult::kConfigOk) {
    done(StdErrors::Error());
    return;
  }
  std::vector<Summary> summaries;
  for (const std::string& version : versions) {
    Trusted::StoredBaseImage image;
    // An image deleted between the two reads is simply left out.
    ConfigResult result = images_.Read(version, image);
    if (result == ConfigResult::kConfigNotFound) {
      continue;
    }
    if (result != ConfigResult::kConfigOk) {
      done(StdErrors::Error());
      return;
    }
    summaries.push_back({version, ImageName(version), AttestedTime(image.last_attested_time)});
  }
  done(std::move(summaries));
}

void BaseImagesImpl::Delete(const std::string& version, Callback<Lumen::Void> done) {
  if (version.empty()) {
    done(Errors::InvalidArgument(Errors::kBaseImagesInvalidArgument, {"version"}));
    return;
  }
  switch (images_.Delete(version)) {
    case ConfigResult::kConfigOk:
      done(Lumen::Void{});
      return;
    case ConfigResult::kConfigNotFound:
      done(NotStored(version));
      return;
    default:
      done(StdErrors::Error());
      return;
  }
}

void BaseImagesImpl::Get(const std::string& version, Callback<Info> done) {
  if (version.empty()) {
    done(Errors::InvalidArgument(Errors::kBaseImagesInvalidArgument, {"version"}));
    return;
  }
  Trusted::StoredBaseImage image;
  ConfigResult result = images_.Read(version, image);
  if (result == ConfigResult::kConfigNotFound) {
    done(NotStored(version));
    return;
  }
  if (result != ConfigResult::kConfigOk) {
    done(StdErrors::Error());
    return;
  }
  Info info{version, ImageName(version), AttestedTime(image.last_attested_time), {}};
  for (const Trusted::PakEntry& pak : image.paks) {
    info.packages.push_back({pak.name, pak.version, pak.vendor, pak.type, pak.summary});
  }
  done(std::move(info));
}

}  // namespace Witnessd::AttestApi
