#include "api/services/RawConfigImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "transfer/ConfigTransfer.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::AttestApi {

void RawConfigImpl::Export(std::optional<InfoType> info_type, Callback<Info> done) {
  if (info_type == InfoType::kUnknown) {
    Log_Level(kLogError, "Unknown info type requested\n");
    done(Errors::InvalidArgument(Errors::kRawConfigInvalidInfoType));
    return;
  }
  std::optional<Transfer::ConfigTransfer::Exported> exported = transfer_.Export();
  if (!exported) {
    done(Errors::Error(Errors::kRawConfigExportFailed));
    return;
  }
  const std::string& text = exported->text;
  Info info;
  info.hash = exported->hash;
  if (info_type == InfoType::kCompressed) {
    if (!Orm::Common::Gzip::CompressFromString(text, info.config)) {
      done(Errors::Error(Errors::kRawConfigExportFailed));
      return;
    }
  } else {
    info.config.assign(text.begin(), text.end());
  }
  done(std::move(info));
}

void RawConfigImpl::Import(const std::vector<uint8_t>& config, Callback<Lumen::Void> done) {
  if (config.empty()) {
    Log_Level(kLogError, "Invalid configuration: empty configuration\n");
    done(Errors::Error(Errors::kRawConfigImportFailed));
    return;
  }
  std::string text;
  if (!Orm::Common::Gzip::DecompressToString(config, text)) {
    // The misspelling is the text operators already search for.
    Log_Level(kLogError, "Invalid configuation: decompression failed\n");
    done(Errors::Error(Errors::kRawConfigImportFailed));
    return;
  }
  if (transfer_.Import(text) != Config::ConfigResult::kConfigOk) {
    done(Errors::Error(Errors::kRawConfigImportFailed));
    return;
  }
  done(Lumen::Void{});
}

}  // namespace Witnessd::AttestApi
