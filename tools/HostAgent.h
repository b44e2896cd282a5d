// The agent of a real host: its TPM through a tpm2-tss TCTI, its EK as the
// host was provisioned with it, the event log its firmware and kernel wrote.
// It never boots or measures anything itself.
//
//   Agent::HostAgentOptions options;
//   options.tcti = "device:/dev/tpmrm0";
//   options.host = "attest.example";
//   Agent::HostOutcome o = Agent::AttestHost(options);
//   // o.status 0: o.documents; 1: the daemon refused (o.message names the
//   // error id and text); 2: the TPM, the files or the connection failed
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tools/HostTpm.h"

namespace Witnessd::Agent {

inline constexpr const char* kDefaultEventLog = "/sys/kernel/security/tpm0/binary_bios_measurements";
// Firmware logs are tens of kilobytes; anything this large is not one.
inline constexpr size_t kMaxEventLogBytes = 16u << 20;

// Exit statuses of one attestation, as the command line reports them.
inline constexpr int kHostAttested = 0;
inline constexpr int kHostRefused = 1;  // an API error from the daemon
inline constexpr int kHostFailed = 2;   // TPM, files, connection

struct HostAgentOptions {
  std::string tcti;
  std::string event_log = kDefaultEventLog;
  // An EK certificate file (PEM or DER) to use instead of the one in the
  // TPM's NV; empty: the TPM's own, if it has one.
  std::string ek_certificate_file;
  std::vector<std::string> document_types = {"KMS_AUTH_JWT"};
  std::string host;
  uint16_t port = 0;
};

struct HostOutcome {
  int status = kHostFailed;
  std::vector<std::pair<std::string, std::string>> documents;  // type, token
  std::string message;                                         // why it failed
};

// AttestHost runs one attestation: it opens the TPM, settles the EK (a
// certificate that does not hold the TPM's EK ends it before anything is
// sent), reads the event log, then talks to the daemon, which has the TPM
// quote only after the log was read.
HostOutcome AttestHost(const HostAgentOptions& options);

// DocumentsJson renders {"documents":[{"type":...,"token":...},...]}.
std::string DocumentsJson(const std::vector<std::pair<std::string, std::string>>& documents);

// ReadBoundedFile reads |path| whole, refusing files larger than |max|
// bytes (sysfs files report no size, so the bound is counted as read).
bool ReadBoundedFile(const std::string& path, size_t max, Bytes* out, std::string* error);

// WriteFileAtomically replaces |path| with |content|, mode 0600: a temporary
// file in the same directory, synced, then renamed over it.
bool WriteFileAtomically(const std::string& path, const std::string& content, std::string* error);

// CertificateHoldsEk checks that |certificate_pem| certifies the key of
// |ek_public| (TPM2B_PUBLIC); false with |error| saying how it does not.
bool CertificateHoldsEk(const std::string& certificate_pem, const Bytes& ek_public, std::string* error);

// RetryDelay gives the waits between failed attempts: exponential back-off
// from |first|, doubling up to |cap|, each wait drawn uniformly between
// zero and that ceiling (full jitter) so that many hosts failing together
// do not retry together.
class RetryDelay {
 public:
  RetryDelay(std::chrono::seconds first, std::chrono::seconds cap);
  std::chrono::milliseconds Next();
  void Reset() { ceiling_ = first_; }

 private:
  std::chrono::milliseconds first_;
  std::chrono::milliseconds cap_;
  std::chrono::milliseconds ceiling_;
  std::mt19937_64 random_;
};

// RunHostAgent attests once, or with |interval| > 0 once per interval until
// SIGTERM or SIGINT (then 0), retrying failures with RetryDelay. The
// documents go to |out_path| when set, else to standard output; failures to
// standard error. Returns the exit status.
int RunHostAgent(const HostAgentOptions& options, std::chrono::seconds interval, const std::string& out_path);

}  // namespace Witnessd::Agent
