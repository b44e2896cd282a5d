// Runs the image database generator (make_imgdb.py) for tests. Certificate
// authorities are made once per test process and shared by every archive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Witnessd::Testing {

class ImgdbFixture {
 public:
  // |sysroot| receives usr/share/certs/quarro.cert and quarropartner.cert.
  explicit ImgdbFixture(std::string sysroot);

  // Make returns the archive built with the generator's |flags| (for example
  // "--sign-base partner,maker"), gzip-compressed unless |flags| has
  // --not-gzip. Fails the calling test when the generator fails.
  std::vector<uint8_t> Make(const std::string& flags);

  // InstallCerts (re)writes the certificate files, with CRLs per |flags|
  // ("--crl maker", "--crl maker-garbage"), and removes CRLs not asked for.
  void InstallCerts(const std::string& flags = "");

  std::string MakerCertPem() const;
  const std::string& CertsDir() const { return certs_dir_; }

 private:
  std::string sysroot_;
  std::string certs_dir_;
  std::string ca_dir_;
  std::string work_dir_;
};

}  // namespace Witnessd::Testing
