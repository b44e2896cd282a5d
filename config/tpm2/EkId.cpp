#include "config/tpm2/EkId.h"

#include <algorithm>
#include <vector>

#include "platform/Hex.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {

std::optional<EkId> EkIdOf(const std::string& pem) { return Orm::Common::SslUtils::UsableKeyDigest(pem); }

EkId EkIdOfSpkiDer(const std::string& der) {
  std::vector<uint8_t> digest;
  EkId id{};
  if (Orm::Common::SslUtils::ComputeHash(der, digest) && digest.size() == id.size()) {
    std::copy(digest.begin(), digest.end(), id.begin());
  }
  return id;
}

std::string EkIdHex(const EkId& id) { return Hearth::HexString(id.data(), id.size()); }

}  // namespace Witnessd::Config::Tpm2
