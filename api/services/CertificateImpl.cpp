#include "api/services/CertificateImpl.h"

#include "api/errors/ErrorCatalogue.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace Witnessd::AttestApi {
namespace {

namespace StdErrors = Com::Quarro::Lumen::Std::Errors;

// The largest text Set reads: a certificate and a private key of 8192 bits
// with room to spare.
constexpr size_t kMaxPairText = 64 * 1024;

}  // namespace

void CertificateImpl::Get(Callback<Info> done) {
  Info info;
  info.certificate = keys_.Current()->certificate;
  if (info.certificate.empty()) {
    done(StdErrors::Error());
    return;
  }
  done(std::move(info));
}

void CertificateImpl::Set(const std::string& pem, Callback<Lumen::Void> done) {
  // The daemon makes its first signing pair itself; an administrator may
  // replace it (a key due for rotation, a certificate from the
  // organisation's CA). Relying parties keep verifying the tokens the old
  // key signed: the JWK Set publishes it until those tokens have expired.
  std::string why = "the text is larger than 64 KiB";
  int64_t now_us = 0;
  Hostinfo_GetTimeOfDay(&now_us);
  Config::ReplaceResult result = pem.size() > kMaxPairText
                                     ? Config::ReplaceResult::kInvalid
                                     : keys_.Replace(pem, pem, now_us / 1000000, &why);
  switch (result) {
    case Config::ReplaceResult::kReplaced:
      Log_Level(kLogInfo, "Report signing key replaced; key id %s\n", keys_.Current()->kid.c_str());
      done(Lumen::Void{});
      return;
    case Config::ReplaceResult::kInvalid:
      Log_Level(kLogError, "Report signing key not replaced: %s\n", why.c_str());
      done(Errors::InvalidArgument(Errors::kCertificateInvalidPair, {why}));
      return;
    case Config::ReplaceResult::kStoreFailed:
      done(StdErrors::Error());
      return;
  }
}

}  // namespace Witnessd::AttestApi
