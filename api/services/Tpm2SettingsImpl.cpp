#include "api/services/Tpm2SettingsImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "platform/Log.h"

namespace Witnessd::AttestApi {

using Config::ConfigResult;

void Tpm2SettingsImpl::Get(Callback<Info> done) {
  Info info;
  Config::Tpm2::TrustSnapshotPtr trust = trust_.Snapshot();
  info.require_endorsement_keys = trust->require_endorsement_keys;
  info.require_certificate_validation = trust->require_certificate_validation;
  done(info);
}

void Tpm2SettingsImpl::Update(const UpdateSpec& args, Callback<Lumen::Void> done) {
  if (!args.require_endorsement_keys && !args.require_certificate_validation) {
    Log_Level(kLogVerbose, "Neither input specified for tpm2 settings\n");
    done(Lumen::Void{});
    return;
  }
  switch (trust_.UpdateTpm2Settings(args.require_endorsement_keys, args.require_certificate_validation)) {
    case ConfigResult::kConfigOk:
      done(Lumen::Void{});
      return;
    case ConfigResult::kConfigInvalidArgument:
      done(Errors::InvalidArgument(Errors::kTpm2SettingsInvalidRequirements));
      return;
    default:
      done(Com::Quarro::Lumen::Std::Errors::Error());
      return;
  }
}

}  // namespace Witnessd::AttestApi
