// The store of trusted CA certificate chains: named records, and in memory one
// flat list of every configured certificate in standardized form.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config/Configuration.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {

// A published all-CA list; never changed once published, only replaced.
using CaCertList = std::shared_ptr<const std::vector<std::string>>;

// GetCaCertificates returns the chain of |name|, each certificate
// standardized; kConfigNotFound, kConfigError, or kConfigInvalidData when a
// stored certificate does not parse.
ConfigResult GetCaCertificates(const std::string& name, std::vector<std::string>& out_certs);
// ListCaCertificates returns the chain names in store order.
ConfigResult ListCaCertificates(std::vector<std::string>& out_names);
// AddCaCertificates stores |certs| as given under |name| and appends them,
// standardized, to the current all-CA list, also when that list has not been
// built yet (it then holds only this chain until the next delete or load).
ConfigResult AddCaCertificates(const std::string& name, const std::vector<std::string>& certs);
// DeleteCaCertificates empties the all-CA list, then removes the record.
ConfigResult DeleteCaCertificates(const std::string& name);

// GetAllCaCertificates returns the all-CA list, building it from the store
// when it is empty: chains in store order, a chain with a certificate that
// does not parse left out whole. Null when the store cannot be read; an empty
// list when no chain is configured.
CaCertList GetAllCaCertificates();

// GetCaTrustStore returns the all-CA list parsed into a trust store, built
// once per published list, so every change of the list (add, delete, load,
// import, restore) gives a new store. Null when the list cannot be read.
Orm::Common::TrustStore GetCaTrustStore();

// ResetCaCache replaces the all-CA list by an empty one. The caller holds the
// configuration lock exclusively.
void ResetCaCache();

}  // namespace Witnessd::Config::Tpm2
