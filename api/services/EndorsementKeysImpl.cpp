#include "api/services/EndorsementKeysImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "api/services/ConfigOutcome.h"
#include "config/tpm2/EkIdentification.h"
#include "config/tpm2/RecordChecks.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::AttestApi {
namespace {

using Config::ConfigResult;
using Orm::Common::SslUtils;
namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

constexpr const char* kCertBegin = "-----BEGIN CERTIFICATE-----";
constexpr const char* kCertEnd = "-----END CERTIFICATE-----";

// KeyFromCertificate establishes that |certificate| is usable as an EK
// declaration: standard PEM, chained to a configured CA when the settings
// require it, and matching |public_key| when one is given too. It gives the
// key to store.
std::optional<Lumen::StdError> KeyFromCertificate(const Config::Tpm2::TrustSnapshot& trust, const std::string& name,
                                                  std::string certificate,
                                                  const std::optional<std::string>& public_key, std::string& out_key) {
  if (certificate.empty()) {
    Log_Level(kLogError, "EK Certificate '%s' is empty\n", name.c_str());
    return Errors::InvalidArgument(Errors::kEndorsementKeysEmptyEk);
  }
  if (!SslUtils::StandardizePemString(certificate, kCertBegin, kCertEnd)) {
    Log_Level(kLogError, "Unable to standardize the Endorsement Key certificate\n");
    return Errors::InvalidArgument(Errors::kEndorsementKeysInvalidCert);
  }
  if (!trust.require_certificate_validation) {
    Log_Level(kLogVerbose, "No certificate validation requested in Tpm2 settings\n");
  } else if (trust.cas == nullptr) {
    Log_Level(kLogError, "Unable to get all configured CA certificates\n");
    return Errors::InvalidArgument(Errors::kEndorsementKeysInvalidCert);
  }
  switch (Config::Tpm2::CertificateEkKey(trust, certificate, out_key)) {
    case Config::Tpm2::EkVerdict::kTrusted:
      break;
    case Config::Tpm2::EkVerdict::kUnknownCa:
      Log_Level(kLogError, "Endorsement Key certificate validation failed for '%s'\n", name.c_str());
      return Errors::InvalidArgument(Errors::kEndorsementKeysInvalidCert);
    default:
      Log_Level(kLogError, "Unable to extract the public key of the Endorsement Key certificate for '%s'\n",
                name.c_str());
      return Errors::InvalidArgument(Errors::kEndorsementKeysInvalidCert);
  }
  if (public_key) {
    std::string key = *public_key;
    if (!SslUtils::StandardizePemPubKey(key)) {
      Log_Level(kLogError, "Public Endorsement Key standardization failed for '%s'\n", name.c_str());
      return Errors::InvalidArgument(Errors::kEndorsementKeysInvalidKey);
    }
    if (!SslUtils::ComparePemKeys(key, out_key)) {
      Log_Level(kLogError, "Endorsement Key certificate does not match public key\n");
      return Errors::InvalidArgument(Errors::kEndorsementKeysMismatchedEk);
    }
  }
  return std::nullopt;
}

}  // namespace

void EndorsementKeysImpl::List(Callback<std::vector<Summary>> done) {
  std::vector<std::string> names;
  ConfigResult result = trust_.ListEndorsementKeys(names);
  done(ListOutcome<Summary>(result, std::move(names)));
}

void EndorsementKeysImpl::Get(const std::string& name, Callback<Info> done) {
  if (name.empty()) {
    done(Errors::InvalidArgument(Errors::kEndorsementKeysEmptyName));
    return;
  }
  Info info{name, ""};
  ConfigResult result = trust_.GetEndorsementKey(name, info.public_key);
  done(ReadOutcome(result, std::move(info), Errors::kEndorsementKeysInvalidData));
}

void EndorsementKeysImpl::Create(const CreateSpec& args, Callback<Lumen::Void> done) {
  if (args.name.empty()) {
    done(Errors::InvalidArgument(Errors::kEndorsementKeysEmptyName));
    return;
  }
  if (!args.public_key && !args.certificate) {
    Log_Level(kLogError, "Endorsement Key create requires public key or certificate\n");
    done(Errors::InvalidArgument(Errors::kEndorsementKeysNoEk));
    return;
  }
  std::string key;
  if (!args.certificate) {
    std::optional<std::string> standard = Config::Tpm2::StandardEndorsementKey(*args.public_key);
    if (!standard) {
      Log_Level(kLogError, "Public Endorsement Key validation failed for '%s'\n", args.name.c_str());
      done(Errors::InvalidArgument(Errors::kEndorsementKeysInvalidKey));
      return;
    }
    key = std::move(*standard);
  } else if (auto error = KeyFromCertificate(*trust_.Snapshot(), args.name, *args.certificate, args.public_key, key)) {
    done(std::move(*error));
    return;
  }
  done(CreateOutcome(trust_.AddEndorsementKey(args.name, key), Errors::kEndorsementKeysAlreadyExists,
                     args.name, Errors::kEndorsementKeysAlreadyExistsEk));
}

void EndorsementKeysImpl::Delete(const std::string& name, Callback<Lumen::Void> done) {
  if (name.empty()) {
    done(Errors::InvalidArgument(Errors::kEndorsementKeysEmptyName));
    return;
  }
  done(DeleteOutcome(trust_.DeleteEndorsementKey(name)));
}

}  // namespace Witnessd::AttestApi
