// Runs a real software TPM (swtpm) on loopback for tests that play an
// attested host: a temp state directory, an EK certificate from a throwaway
// local CA, a TPM port and a control port next to it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace Witnessd::Testing {

class SwtpmProcess {
 public:
  SwtpmProcess();
  ~SwtpmProcess();  // stops the TPM and removes the temp directory
  SwtpmProcess(const SwtpmProcess&) = delete;
  SwtpmProcess& operator=(const SwtpmProcess&) = delete;

  // Setup manufactures the TPM state: RSA and ECC EKs with certificates
  // signed by a local CA kept in the temp directory, SHA-256 PCR bank only.
  // Start runs `swtpm socket` on two adjacent loopback ports held open by
  // this process, so the TPM accepts connections as soon as it returns.
  // Both return false (with the tool's output kept in SetupLog) on failure.
  bool Setup();
  bool Start();
  // Stop ends the TPM with SIGTERM and waits for it; its state stays.
  void Stop();

  uint16_t Port() const { return port_; }
  uint16_t CtrlPort() const { return static_cast<uint16_t>(port_ + 1); }
  // Tcti is the tpm2-tss TCTI configuration for this TPM.
  std::string Tcti() const;
  const std::string& Dir() const { return dir_; }
  // The local CA's certificates in PEM: the root and the issuer that signs
  // EK certificates.
  std::string RootCaPem() const;
  std::string IssuerCaPem() const;
  std::string SetupLog() const;

 private:
  std::string dir_;
  uint16_t port_ = 0;
  pid_t pid_ = -1;
};

}  // namespace Witnessd::Testing
