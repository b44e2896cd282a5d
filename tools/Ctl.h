// witnessctl, the administrator's command-line client, from its pieces: a
// JSON-RPC session with the daemon (CtlSession.h), the command catalogue read
// from the daemon's CLI metadata and kept between runs (CtlCatalogue.h), the
// conversion of command-line options into an operation's input and the help
// of a command (CtlInput.h), the rendering of outputs (CtlRender.h), and
// token minting.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/CtlCatalogue.h"
#include "tools/CtlInput.h"
#include "tools/CtlRender.h"
#include "tools/CtlSession.h"

namespace Witnessd::Ctl {

// Exit statuses of witnessctl.
inline constexpr int kExitOk = 0;
inline constexpr int kExitApiError = 1;  // the daemon refused or could not be reached
inline constexpr int kExitUsage = 2;     // the command line cannot be carried out as given

// MintToken signs a token for |subject| with |entitlements| using the PEM
// private key |key_pem|: RS256 for an RSA key, ES256 for a P-256 key.
bool MintToken(const std::string& key_pem, const std::string& subject, const std::vector<std::string>& entitlements,
               long validity_seconds, std::string* token, std::string* error);

// VerifyReportToken checks an attestation token as a relying party does:
// an RS256 signature by a key of the JWK Set |jwks_text| (the one its "kid"
// names, or any when it names none), "exp" after |now|, and "iat" and "nbf",
// when present, at most a minute ahead of |now|. True with |claims| set when
// it holds; false with |why| otherwise.
bool VerifyReportToken(const std::string& token, const std::string& jwks_text, int64_t now, nlohmann::json* claims,
                       std::string* why);

}  // namespace Witnessd::Ctl
