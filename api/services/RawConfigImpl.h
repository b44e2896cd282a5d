// The raw configuration service: the whole attestation configuration
// exported (plain or gzip-compressed) with its hash, and imported back from
// the compressed form.
#pragma once

#include "api/services/RawConfigSvc.h"
#include "transfer/ConfigTransfer.h"

namespace Witnessd::AttestApi {

class RawConfigImpl : public RawConfigSvc {
 public:
  // |transfer| outlives the service.
  explicit RawConfigImpl(Transfer::ConfigTransfer& transfer) : transfer_(transfer) {}

  void Export(std::optional<InfoType> info_type, Callback<Info> done) override;
  void Import(const std::vector<uint8_t>& config, Callback<Lumen::Void> done) override;

 private:
  Transfer::ConfigTransfer& transfer_;
};

}  // namespace Witnessd::AttestApi
