#include "config/tpm2/EkId.h"

#include "platform/Hex.h"
#include "platform/ssl/SslUtils.h"

namespace Witnessd::Config::Tpm2 {

std::optional<EkId> EkIdOf(const std::string& pem) { return Orm::Common::SslUtils::UsableKeyDigest(pem); }

EkId EkIdOfSpkiDer(const std::string& der) { return Orm::Common::SslUtils::Sha256(der).value_or(EkId{}); }

std::string EkIdHex(const EkId& id) { return Hearth::HexString(id.data(), id.size()); }

}  // namespace Witnessd::Config::Tpm2
