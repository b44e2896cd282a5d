#include "api/provider/ProviderAssembly.h"

#include <fstream>
#include <sstream>

#include "api/provider/Filters.h"
#include "api/provider/Metadata.h"
#include "platform/Assert.h"
#include "platform/Log.h"
#include "platform/System.h"
#include "platform/lumen/Json.h"

namespace Witnessd::AttestApi {

namespace {

constexpr const char* kSourcePath = "apps/witnessd/lumen/provider";

using Lumen::Provider::InterfaceList;

template <class Svc>
void BindIfPresent(const std::shared_ptr<Svc>& impl, InterfaceList* interfaces) {
  if (impl) {
    Svc::AsyncServiceBinder::BindImplementation(impl, interfaces);
  }
}

void Append(InterfaceList* to, const InterfaceList& from) {
  to->insert(to->end(), from.begin(), from.end());
}

}  // namespace

ProviderFiles DefaultProviderFiles() {
  ProviderFiles files;
  files.metadata = Hearth::SysrootPath(std::string(kMetadataDir) + kMetadataFileName);
  files.trusted_issuers = Hearth::SysrootPath(kTrustedIssuersPath);
  files.audit_switch = Hearth::SysrootPath(kAuditSwitchPath);
  return files;
}

std::shared_ptr<Lumen::Provider::ApiProvider> AssembleProvider(
    NotificationCallback notify, std::shared_ptr<Lumen::L10n::Localizer> localizer,
    std::shared_ptr<Lumen::Log::Logger> logger, std::shared_ptr<Orm::Common::HearthLumen::TrafficTracker> traffic,
    std::shared_ptr<Orm::Common::HearthLumen::ErrorsTracker> errors, const ServiceImpls& impls,
    const ProviderFiles& files) {
  const char* path = files.metadata.c_str();
  std::string error;
  nlohmann::json cli, metamodel, authn, authz;

  Log_Level(kLogInfo, "Loading cli metadata file: %s\n", path);
  if (!ProviderHelper::LoadCliMetadataFile(files.metadata, kCliComponent, &cli, &error)) {
    Log_Level(kLogError, "Error loading file: %s\n", error.c_str());
    VERIFY(false);
  }
  Log_Level(kLogInfo, "Loading metamodel metadata file: %s\n", path);
  if (!ProviderHelper::LoadMetamodelMetadataFile(files.metadata, kMetamodelComponent, &metamodel, &error)) {
    Log_Level(kLogError, "Error loading file: %s\n", error.c_str());
    VERIFY(false);
  }
  Log_Level(kLogInfo, "Loading authn metadata file: %s\n", path);
  if (!ProviderHelper::LoadAuthnMetadataFile(files.metadata, kAuthnComponent, &authn, &error)) {
    Log_Level(kLogError, "Error loading file: %s\n", error.c_str());
    VERIFY(false);
  }
  AuthnMetadata authn_metadata = AuthnMetadataFromSection(authn);
  for (const auto& op : FrameworkOperations()) {
    authn_metadata[op] = {kNoAuthenticationScheme};
  }

  Log_Level(kLogInfo, "Loading authz metadata file: %s\n", path);
  std::ifstream stream(files.metadata, std::ios::binary);
  if (!stream || !LoadAuthzInfoMetadata::Load(stream, &authz)) {
    Log_Level(kLogError, "Error loading authz metadata file: %s\n", path);
    VERIFY(false);
  }

  auto interfaces = std::make_unique<InterfaceList>();
  BindIfPresent(impls.status, interfaces.get());
  BindIfPresent(impls.ca_certificates, interfaces.get());
  BindIfPresent(impls.certificate, interfaces.get());
  BindIfPresent(impls.base_images, interfaces.get());
  BindIfPresent(impls.raw_config, interfaces.get());
  BindIfPresent(impls.report, interfaces.get());
  BindIfPresent(impls.endorsement_keys, interfaces.get());
  BindIfPresent(impls.tpm2_settings, interfaces.get());

  std::ifstream whole(files.metadata, std::ios::binary);
  std::ostringstream bytes;
  bytes << whole.rdbuf();
  Append(interfaces.get(), ProviderHelper::CliInterfaces(cli));
  Append(interfaces.get(), ProviderHelper::MetamodelInterfaces(metamodel));
  Append(interfaces.get(), ProviderHelper::AuthnInterfaces(authn));
  auto bound = std::make_shared<BoundOperations>();
  Append(interfaces.get(), IntrospectionInterfaces(bound, metamodel, Lumen::Json::HexDigestSha256(bytes.str())));
  for (const auto& i : *interfaces) {
    auto& ops = (*bound)[i->service_id];
    for (const auto& [op, handler] : i->operations) {
      ops.push_back(op);
    }
  }

  auto types = std::make_shared<const Lumen::Json::TypeRegistry>(metamodel);
  auto local = std::make_shared<Lumen::Provider::AsyncLocalProvider>(*interfaces, types);
  auto authz_filter = std::make_shared<AsyncAuthzFilter>(
      local, std::make_shared<const HyvToken::Authz::JwtEntitlementCheckerImpl>(), authz);

  auto token_handler = std::make_shared<Hyv::Authn::TokenHandler>(logger, files.clock);
  token_handler->LoadTrustedIssuers(files.trusted_issuers);
  auto authn_filter = std::make_shared<AsyncAuthnFilter>(authz_filter, std::move(authn_metadata), token_handler,
                                                         std::make_shared<const AnonymousAuthnHandler>(logger), logger);

  auto registrar = std::make_shared<Lumen::Observer::CallRegistrar>(authn_filter);
  auto op_ids = std::make_shared<Orm::Common::HearthLumen::OpIdProvider>(registrar, logger);

  registrar->Register(std::make_shared<AuditObserver>(files.audit_switch));
  registrar->Register(std::make_shared<TrafficObserver>(std::move(traffic), std::move(errors)));
  registrar->Register(std::make_shared<CallMetricsObserver>());

  if (localizer) {
    Lumen::L10n::LocalizerHelpers::SetDefaultLocalizer(localizer);
  }
  if (notify) {
    notify("provider.assembled");
  }
  return op_ids;
}

}  // namespace Witnessd::AttestApi
