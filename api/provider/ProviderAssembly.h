// Assembly of the daemon's API provider: metadata, service bindings,
// metadata and introspection services, local provider, authorization and
// authentication filters, operation ids and the call observers.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/services/BaseImagesSvc.h"
#include "api/services/CaCertificatesSvc.h"
#include "api/services/CertificateSvc.h"
#include "api/services/EndorsementKeysSvc.h"
#include "api/services/RawConfigSvc.h"
#include "api/services/ReportSvc.h"
#include "api/services/StatusSvc.h"
#include "api/services/Tpm2SettingsSvc.h"
#include "platform/Trackers.h"
#include "platform/lumen/Localizer.h"
#include "platform/lumen/Log.h"
#include "platform/lumen/Provider.h"
#include "platform/lumen/TokenHandler.h"

namespace Witnessd::AttestApi {

inline constexpr const char* kTrustedIssuersPath = "/etc/quarro/cpservices/witnessd/trusted_issuers.pem";

// ServiceImpls: the implementations to bind; a null one leaves its service
// unbound, so its operations answer OPERATION_NOT_FOUND.
struct ServiceImpls {
  std::shared_ptr<StatusSvc> status;
  std::shared_ptr<CaCertificatesSvc> ca_certificates;
  std::shared_ptr<CertificateSvc> certificate;
  std::shared_ptr<BaseImagesSvc> base_images;
  std::shared_ptr<RawConfigSvc> raw_config;
  std::shared_ptr<ReportSvc> report;
  std::shared_ptr<EndorsementKeysSvc> endorsement_keys;
  std::shared_ptr<Tpm2SettingsSvc> tpm2_settings;
};

// ProviderFiles: where assembly reads from. The defaults are the daemon's
// fixed paths under the sysroot.
struct ProviderFiles {
  std::string metadata;
  std::string trusted_issuers;
  std::string audit_switch;
  Hyv::Authn::TokenHandler::Clock clock;  // null: the system clock
};
ProviderFiles DefaultProviderFiles();

using NotificationCallback = std::function<void(const std::string& event)>;

// AssembleProvider builds the provider. A metadata section that cannot be
// read is fatal: "Error loading file: %s" (or "Error loading authz metadata
// file: %s") and an assertion stop the process. A missing trusted issuers
// file only means no token is trusted.
std::shared_ptr<Lumen::Provider::ApiProvider> AssembleProvider(
    NotificationCallback notify, std::shared_ptr<Lumen::L10n::Localizer> localizer,
    std::shared_ptr<Lumen::Log::Logger> logger, std::shared_ptr<Orm::Common::HearthLumen::TrafficTracker> traffic,
    std::shared_ptr<Orm::Common::HearthLumen::ErrorsTracker> errors, const ServiceImpls& impls,
    const ProviderFiles& files = DefaultProviderFiles());

}  // namespace Witnessd::AttestApi
