#include "api/services/CertificateImpl.h"

#include "platform/Log.h"

namespace Witnessd::AttestApi {

void CertificateImpl::Get(Callback<Info> done) {
  Info info;
  info.certificate = keys_.Current()->certificate;
  if (info.certificate.empty()) {
    done(Com::Quarro::Lumen::Std::Errors::Error());
    return;
  }
  done(std::move(info));
}

void CertificateImpl::Set(const std::string&, Callback<Lumen::Void> done) {
  // The daemon makes and keeps its signing key pair itself.
  Log_Level(kLogError, "Certificate.Set is not supported yet\n");
  done(Com::Quarro::Lumen::Std::Errors::Error());
}

}  // namespace Witnessd::AttestApi
