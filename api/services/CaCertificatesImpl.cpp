#include "api/services/CaCertificatesImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "api/services/ConfigOutcome.h"
#include "config/tpm2/RecordChecks.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::AttestApi {
namespace {

using Config::ConfigResult;
using Orm::Common::SslUtils;

std::optional<Lumen::StdError> CheckName(const std::string& name) {
  if (name.empty()) {
    Log_Level(kLogError, "CA Certificates argument name empty\n");
    return Errors::InvalidArgument(Errors::kCaCertificatesEmptyName);
  }
  return std::nullopt;
}

// ChainIsValid establishes that the chain's members are CA certificates, as
// every stored chain's are, and that they verify up to a configured CA or to
// a root of their own. The caller has refused an empty chain.
bool ChainIsValid(const Config::Tpm2::TrustSnapshot& trust, const std::vector<std::string>& certificates) {
  Config::Tpm2::CaChainCheck check = Config::Tpm2::CheckCaChainMembers(certificates);
  switch (check.fault) {
    case Config::Tpm2::CaChainFault::kNone:
      break;
    case Config::Tpm2::CaChainFault::kUnreadable:
      Log_Level(kLogError, "Failed to standardize TPM CA certificate chain: %s\n", certificates[check.index].c_str());
      return false;
    case Config::Tpm2::CaChainFault::kEmpty:
    case Config::Tpm2::CaChainFault::kNotCa:
      return false;
  }
  if (trust.cas == nullptr) {
    Log_Level(kLogError, "Unable to get all configured CA certificates\n");
    return false;
  }
  return SslUtils::ValidateCertChain(certificates, trust.ca_certificates, true);
}

}  // namespace

void CaCertificatesImpl::List(Callback<std::vector<Summary>> done) {
  std::vector<std::string> names;
  ConfigResult result = trust_.ListCaCertificates(names);
  done(ListOutcome<Summary>(result, std::move(names)));
}

void CaCertificatesImpl::Get(const std::string& name, Callback<Info> done) {
  if (auto error = CheckName(name)) {
    done(std::move(*error));
    return;
  }
  Info info{name, {}};
  ConfigResult result = trust_.GetCaCertificates(name, info.certificates);
  done(ReadOutcome(result, std::move(info), Errors::kCaCertificatesInvalidData));
}

void CaCertificatesImpl::Create(const CreateSpec& args, Callback<Lumen::Void> done) {
  if (auto error = CheckName(args.name)) {
    done(std::move(*error));
    return;
  }
  if (args.certificates.empty()) {
    Log_Level(kLogError, "CA certificates argument certs empty\n");
    done(Errors::InvalidArgument(Errors::kCaCertificatesEmptyCerts));
    return;
  }
  if (!ChainIsValid(*trust_.Snapshot(), args.certificates)) {
    Log_Level(kLogError, "CA Certificate '%s' validation failed\n", args.name.c_str());
    done(Errors::InvalidArgument(Errors::kCaCertificatesInvalidChain));
    return;
  }
  // Stored as received; reads give the standardized form.
  done(CreateOutcome(trust_.AddCaCertificates(args.name, args.certificates),
                     Errors::kCaCertificatesAlreadyExists, args.name));
}

void CaCertificatesImpl::Delete(const std::string& name, Callback<Lumen::Void> done) {
  if (auto error = CheckName(name)) {
    done(std::move(*error));
    return;
  }
  done(DeleteOutcome(trust_.DeleteCaCertificates(name)));
}

}  // namespace Witnessd::AttestApi
