#include "daemon/Daemon.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>

#include <boost/asio/io_context.hpp>

#include "api/endpoint/Endpoint.h"
#include "api/errors/ErrorCatalogue.h"
#include "api/provider/ProviderAssembly.h"
#include "api/services/BaseImagesImpl.h"
#include "api/services/CaCertificatesImpl.h"
#include "api/services/CertificateImpl.h"
#include "api/services/EndorsementKeysImpl.h"
#include "api/services/RawConfigImpl.h"
#include "api/services/ReportImpl.h"
#include "api/services/StatusImpl.h"
#include "api/services/Tpm2SettingsImpl.h"
#include "config/Configuration.h"
#include "config/Health.h"
#include "config/SigningKey.h"
#include "config/tpm2/TrustConfiguration.h"
#include "transfer/ConfigTransfer.h"
#include "trusted/BaseImageStore.h"
#include "api/log/LumenLoggerWrapper.h"
#include "document/AttestationToken.h"
#include "platform/Hearth.h"
#include "platform/Log.h"
#include "platform/SignalUtils.h"
#include "platform/System.h"
#include "platform/Trackers.h"
#include "platform/configstore/ConfigStore.h"
#include "tpm2/SessionManager.h"

namespace Witnessd::Daemon {
namespace {

using Orm::Common::HearthLumen::ErrorsTracker;
using Orm::Common::HearthLumen::TrafficTracker;

// The endpoint as seen by the signal handler, which can be given no
// argument; set once it exists.
std::atomic<AttestApi::Endpoint*> g_endpoint{nullptr};

int64_t WholeSeconds(std::chrono::nanoseconds d) {
  return std::chrono::duration_cast<std::chrono::seconds>(d).count();
}

// ReadTimeout reads the connection timeout |key|, 1 to |max_seconds| seconds;
// a value out of range ends the start, as for "maxConnections".
std::chrono::seconds ReadTimeout(const Hearth::Service::Config& config, const char* key, int max_seconds) {
  int64_t seconds = config.GetInt(key, 0);
  if (seconds < 1 || seconds > max_seconds) {
    throw std::runtime_error(std::string(key) + " must be between 1 and " + std::to_string(max_seconds));
  }
  return std::chrono::seconds(seconds);
}

void OnTerminationSignal(int) {
  Log_Level(kLogWarning, "Exiting with status %d\n", 0);
  Orm::Common::SignalUtils::SignalsExit();
  if (AttestApi::Endpoint* endpoint = g_endpoint.load()) {
    endpoint->Stop();
  }
  // Ends without stopping the errors tracker: a signal is not the normal path.
  Hearth::System::QuickExit(0);
}

}  // namespace

int Main() {
  SSL_Init();

  auto scratch = Hearth::Service::CreateScratchConfig();
  scratch->SetString("log/level", "info");
  scratch->SetInt("hearth/threadPool/ioThreads", 1);
  scratch->SetInt("hearth/threadPool/maxThreads", 9);
  // Typed defaults of the later settings, so that a value of the wrong type
  // fails here with the others rather than half-way through the start.
  scratch->SetInt("maxSessions", 1000);
  scratch->SetInt("maxSessionsPerEk", 5);
  scratch->SetInt("sessionTimeoutSeconds", 300);
  scratch->SetInt("tokenValiditySeconds", 0);
  scratch->SetBool("strictQuoteChecks", true);
  scratch->SetInt("maxConnections", AttestApi::DefaultMaxConnections());
  const AttestApi::EndpointTimeouts default_timeouts;
  scratch->SetInt("headerTimeoutSeconds", WholeSeconds(default_timeouts.header));
  scratch->SetInt("idleTimeoutSeconds", WholeSeconds(default_timeouts.idle));

  Hearth::Service::SetAppInfo({"witnessd", WITNESSD_VERSION, WITNESSD_BUILD_NUMBER, 0});
  try {
    Hearth::Service::InitApp(scratch, Hearth::SysrootPath(kSettingsPath));
  } catch (const std::exception& e) {
    std::cerr << "Initializing hearth failed: " << e.what() << std::endl;
    Hearth::System::QuickExit(1);
  }

  std::shared_ptr<TrafficTracker> traffic_tracker;
  std::shared_ptr<ErrorsTracker> errors_tracker;
  int status = 1;
  try {
    traffic_tracker = std::make_shared<TrafficTracker>(Hearth::Service::Logger::sDefaultLogger);
    errors_tracker = std::make_shared<ErrorsTracker>(Hearth::Service::Logger::sDefaultLogger);

    // The host system-information registration is a platform service this
    // build does not have; nothing to do.

    auto witnessd_logger =
        Hearth::Service::Logger::CreateLogger(Hearth::Service::Logger::sDefaultLogger, "witnessdLogger");

    // Persistent configuration. The store is opened first so that a damaged or
    // unreadable database stops the start rather than read as empty.
    Config::Store store = HyvConfig::HyvConfigStore::Open(Hearth::SysrootPath(HyvConfig::kDatabasePath));
    Config::StatusConditions conditions;
    Config::SigningKeys signing_keys(store);
    Config::Tpm2::TrustConfiguration trust(store);
    Trusted::BaseImageStore images(store, conditions);
    Transfer::ConfigTransfer transfer(store, signing_keys, trust, images);
    transfer.Restore();

    Hearth::Service::App& app = Hearth::Service::GetApp();
    Tpm2::SessionManager sessions(Tpm2::ReadSessionLimits(app.GetConfig()), images);
    sessions.Start(app.GetScheduler());
    int64_t token_validity = app.GetConfig().GetInt("tokenValiditySeconds", 0);
    if (token_validity < 0) {
      throw std::runtime_error("tokenValiditySeconds must not be negative");
    }
    Document::TokenSigner signer(signing_keys, token_validity);
    int64_t max_connections = app.GetConfig().GetInt("maxConnections", AttestApi::kDefaultMaxConnections);
    if (max_connections < 1 || max_connections > kMaxConnectionsLimit) {
      throw std::runtime_error("maxConnections must be between 1 and " + std::to_string(kMaxConnectionsLimit));
    }
    Log_Level(kLogInfo, "Max connections: %d\n", static_cast<int>(max_connections));
    AttestApi::EndpointTimeouts timeouts;
    timeouts.header = ReadTimeout(app.GetConfig(), "headerTimeoutSeconds", kMaxHeaderTimeoutSeconds);
    timeouts.idle = ReadTimeout(app.GetConfig(), "idleTimeoutSeconds", kMaxIdleTimeoutSeconds);
    Log_Level(kLogInfo, "Request head timeout: %lld s, idle timeout: %lld s\n",
              static_cast<long long>(WholeSeconds(timeouts.header)),
              static_cast<long long>(WholeSeconds(timeouts.idle)));

    auto logger = std::make_shared<AttestApi::LumenLoggerWrapper>(&Log_Level);

    auto localizer = std::make_shared<Lumen::L10n::Localizer>("en_US", &AttestApi::Errors::LookupMessage);
    // Service implementations are bound here as they are built (hook: services).
    AttestApi::ServiceImpls services;
    services.status = std::make_shared<AttestApi::StatusImpl>(trust, images, conditions);
    services.tpm2_settings = std::make_shared<AttestApi::Tpm2SettingsImpl>(trust);
    services.endorsement_keys = std::make_shared<AttestApi::EndorsementKeysImpl>(trust);
    services.ca_certificates = std::make_shared<AttestApi::CaCertificatesImpl>(trust);
    services.certificate = std::make_shared<AttestApi::CertificateImpl>(signing_keys);
    services.base_images = std::make_shared<AttestApi::BaseImagesImpl>(images);
    services.raw_config = std::make_shared<AttestApi::RawConfigImpl>(transfer);
    services.report = std::make_shared<AttestApi::ReportImpl>(trust, sessions, signer);
    auto provider = AttestApi::AssembleProvider([](const std::string&) {}, localizer, logger, traffic_tracker,
                                                errors_tracker, services);

    Config::HealthCheck health(store, signing_keys);
    AttestApi::PublicDocuments documents;
    // A replaced key stays published while tokens it signed may be valid.
    const int64_t retired_published = std::max(Config::kRetiredKeyPublishedSeconds, token_validity);
    documents.jwks = [&signing_keys, retired_published] {
      int64_t now_us = 0;
      Hostinfo_GetTimeOfDay(&now_us);
      return Config::JwkSetText(*signing_keys.Current(), now_us / 1000000, retired_published);
    };
    documents.health_problem = [&health] { return health.Problem(); };
    auto io = std::make_shared<boost::asio::io_context>();
    auto endpoint = std::make_shared<AttestApi::Endpoint>(Hearth::ServicePort(kDefaultPort), io, provider,
                                                          [](const std::string&) {}, localizer, logger, timeouts,
                                                          static_cast<int>(max_connections), std::move(documents));

    bool serving = false;
    if (!endpoint->Start()) {
      Log_Level(kLogError, "HTTP endpoint failed to start. Exiting.\n");
    } else {
      g_endpoint.store(endpoint.get());
      if (!Orm::Common::SignalUtils::SignalsInit(OnTerminationSignal)) {
        Log_Level(kLogError, "Failed to install signal handlers. Exiting.\n");
      } else {
        serving = true;
      }
    }
    if (serving) {
      Hearth::Service::GetApp().Run();
      endpoint->Stop();
      g_endpoint.store(nullptr);
      endpoint.reset();
      io.reset();
      provider.reset();
      localizer.reset();
      logger.reset();
      status = 0;
    }
  } catch (const std::exception& e) {
    Log_Level(kLogError, "Exiting with error: %s\n", e.what());
    status = 1;
  }

  if (errors_tracker) {
    errors_tracker->Stop();
  }
  Log_Level(kLogWarning, "Exiting with status %d\n", status);
  Orm::Common::SignalUtils::SignalsExit();
  Hearth::System::QuickExit(status);
}

}  // namespace Witnessd::Daemon
