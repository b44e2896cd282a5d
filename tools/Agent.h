// The test agent: plays an attested host's agent against witnessd's Report
// service. One call of Attest runs a whole attestation:
//
//   auto tpm = Agent::MakeSoftwareHost();           // or OpenSwtpmHost(port, &error), OpenTctiHost(conf, &error)
//   Agent::AttestOptions options;
//   options.boot.txt = true;
//   Agent::AttestResult r = Agent::Attest(tpm.get(), "127.0.0.1", daemon_port, options);
//   // r.documents on success, r.error_id ("com.quarro...report.unknown_tpm") on an API error
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/BootLog.h"
#include "tools/HostTpm.h"

namespace Witnessd::Agent {

// Faults the agent can inject, one per attestation, to provoke the
// daemon's report errors.
enum class Fault {
  kNone,
  kTamperedAk,         // AK public area sent with the decrypt bit added
  kWrongCredential,    // activated credential sent with one byte changed
  kOutOfOrder,         // answers the create-AK request with an activate-AK response
  kUnknownSession,     // the second call names a session id the daemon never gave
  kPcrAfterLog,        // a core PCR is extended after the log was written
  kBothResponsesInOne, // quote and event log responses in one message holder
  // A compromised host that makes its PCR reads say what its event log
  // says (the values |boot| gives, whatever the TPM measured) and has the
  // TPM vouch for them:
  kForgedAttest,  // an attestation structure the host wrote (magic 0, the
                  // requested PCRs, the digest of the logged values), signed
                  // by the AK through TPM2_Hash and TPM2_Sign
  kPartialQuote,  // a genuine quote over PCR 8 only, which neither boot touches
};

struct AttestOptions {
  // Identify the EK by its certificate (from NV) rather than its public key.
  bool use_certificate = false;
  // Send both the certificate and the public key.
  bool send_both = false;
  std::vector<std::string> document_types = {"KMS_AUTH_JWT"};
  // Boot and measure the TPM before attesting; without it the PCRs must
  // already hold |boot|'s measurements.
  bool measure_boot = true;
  BootPlan boot;
  // What the TPM really measures when it differs from |boot|, the boot the
  // event log tells.
  std::optional<BootPlan> measured_boot;
  // The host's own event log: sent as it is, with nothing measured and no
  // synthetic log written.
  std::optional<Bytes> event_log;
  // An EK certificate (PEM) to send instead of the TPM's own.
  std::string ek_certificate_pem;
  // The agent's statement that the event log is whole.
  bool log_complete = true;
  Fault fault = Fault::kNone;
  // Stop after this many turns (0: run to the end); for tests that hold
  // sessions open.
  int max_turns = 0;
  // Answer a quote request with nothing, only the event log request: the
  // daemon's session then holds the log while it waits for the quote.
  bool withhold_quote = false;
  std::string content_type = "application/vnd.quarro.lumen.cleanjson";
};

struct AttestResult {
  bool ok = false;  // documents received
  std::vector<std::pair<std::string, std::string>> documents;  // type, token
  // An API error: its kind ("INVALID_ARGUMENT"...) and first message id.
  std::string error_type;
  std::string error_id;
  std::string error_text;  // the first message's text, its arguments filled in
  // Anything else that went wrong (TPM, HTTP, malformed reply).
  std::string failure;
  int turns = 0;
  uint64_t session_id = 0;
  std::vector<double> turn_seconds;  // wall time of each Report call
  std::string ek_public_pem;         // the EK as sent or as in the certificate
};

// Attest runs one attestation of |tpm| against the daemon at |host|:|port|.
AttestResult Attest(HostTpm* tpm, const std::string& host, uint16_t port, const AttestOptions& options);

// One Report call of the conversation: what the agent sends.
struct ReportCall {
  int turn = 0;
  std::vector<std::string> document_types;
  std::vector<Bytes> contexts;     // none on the first call
  std::string ek_certificate_pem;  // empty when not sent
  std::string ek_public_pem;       // empty when not sent
};
// What the Report service answered: an API error (error_type set), the
// documents (done), or the next serialized context.
struct ReportAnswer {
  std::string error_type;
  std::string error_id;
  std::string error_text;
  bool done = false;
  std::vector<std::pair<std::string, std::string>> documents;
  Bytes context;
};
// ReportTransport makes one Report call; false, with |failure| set, when the
// call itself failed (transport, malformed reply).
using ReportTransport = std::function<bool(const ReportCall& call, ReportAnswer* out, std::string* failure)>;

// AttestWith runs one attestation of |tpm| with each Report call made by
// |transport|; Attest is AttestWith over HTTP.
AttestResult AttestWith(HostTpm* tpm, const AttestOptions& options, const ReportTransport& transport);

// OverHttp makes each Report call as a POST of |content_type| to
// http://|host|:|port|/api.
ReportTransport OverHttp(const std::string& host, uint16_t port, const std::string& content_type);

// MakeReportRequest builds the JSON-RPC body of one Report create call.
std::string MakeReportRequest(const std::string& id, const std::vector<std::string>& document_types,
                              const std::vector<Bytes>& contexts, const std::string& ek_certificate_pem,
                              const std::string& ek_public_pem);

}  // namespace Witnessd::Agent
