#include "tpm2/SessionSteps.h"

#include "platform/Log.h"
#include "tpm2/CredentialProtection.h"

namespace Witnessd::Tpm2 {

using attestation::proto::Context;

Bytes ToBytes(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

std::string ToString(const Bytes& b) {
  return std::string(b.begin(), b.end());
}

SessionResult CheckResponses(const Context::Message& m) {
  if (m.has_create_ak_response() &&
      (!m.create_ak_response().has_ek_public() || !m.create_ak_response().has_ak_public())) {
    Log_Level(kLogError, "Invalid create AK response message\n");
    return SessionResult::kInvalidInput;
  }
  if (m.has_activate_ak_response() && !m.activate_ak_response().has_cert_info()) {
    Log_Level(kLogError, "Invalid activate AK response message\n");
    return SessionResult::kInvalidInput;
  }
  if (m.has_quote_response()) {
    const auto& q = m.quote_response();
    if (!q.has_quoted() || !q.has_signature() || q.pcr_read_results_size() == 0) {
      Log_Level(kLogError, "Invalid quote response message\n");
      return SessionResult::kInvalidInput;
    }
    for (const auto& r : q.pcr_read_results()) {
      if (!r.has_pcr_selection_out() || !r.has_pcr_values()) {
        Log_Level(kLogError, "Invalid PCR read result message\n");
        return SessionResult::kInvalidInput;
      }
    }
  }
  if (m.has_event_log_response() &&
      (!m.event_log_response().has_complete() || !m.event_log_response().has_event_log())) {
    Log_Level(kLogError, "Invalid event log response message\n");
    return SessionResult::kInvalidInput;
  }
  int present = int{m.has_create_ak_response()} + int{m.has_activate_ak_response()} + int{m.has_quote_response()} +
                int{m.has_event_log_response()};
  if (present != 1) {
    Log_Level(kLogError, "Message requires 1 supported type, contains: %d\n", present);
    return SessionResult::kInvalidInput;
  }
  return SessionResult::kSuccess;
}

SessionResult HandleMessage(Session& session, const Context::Message& m, Context& out, bool& activated) {
  SessionResult code;
  if (m.has_create_ak_response()) {
    Log_Level(kLogVerbose, "Found create_ak_response message\n");
    Bytes blob;
    Bytes secret;
    code = session.SetAttestationKey(ToBytes(m.create_ak_response().ak_public()),
                                     ToBytes(m.create_ak_response().ek_public()), blob, secret);
    if (code != SessionResult::kSuccess) {
      Log_Level(kLogError, "Failed to set attestation key\n");
      Log_Level(kLogError, "Failed to handle attestation key creation\n");
      return code;
    }
    auto* request = out.add_messages()->mutable_activate_ak_request();
    request->set_credential_blob(ToString(blob));
    request->set_encrypted_secret(ToString(secret));
  } else if (m.has_activate_ak_response()) {
    Log_Level(kLogVerbose, "Found activate_ak_response message\n");
    code = session.ActivateAttestationKey(ToBytes(m.activate_ak_response().cert_info()));
    if (code != SessionResult::kSuccess) {
      Log_Level(kLogError, "Failed to activate attestation key\n");
      Log_Level(kLogError, "Failed to handle attestation key activation\n");
      return code;
    }
    activated = true;
    auto* quote = out.add_messages()->mutable_quote_request();
    quote->set_qualifying_data(ToString(session.QuoteQualifyingData()));
    quote->set_sig_scheme(ToString(QuoteSigScheme()));
    quote->set_pcr_selection(ToString(RequiredPcrSelection()));
    out.add_messages()->mutable_event_log_request();
  } else if (m.has_quote_response()) {
    Log_Level(kLogVerbose, "Found quote_response message\n");
    const auto& q = m.quote_response();
    std::vector<Bytes> selections;
    std::vector<Bytes> values;
    for (const auto& r : q.pcr_read_results()) {
      selections.push_back(ToBytes(r.pcr_selection_out()));
      values.push_back(ToBytes(r.pcr_values()));
    }
    code = session.SetQuote(ToBytes(q.quoted()), ToBytes(q.signature()), selections, values);
    if (code != SessionResult::kSuccess) {
      Log_Level(kLogError, "Failed to set quote\n");
      Log_Level(kLogError, "Failed to handle quote response\n");
      return code;
    }
  } else {
    Log_Level(kLogVerbose, "Found event_log_response message\n");
    code = session.SetEventLog(ToBytes(m.event_log_response().event_log()), m.event_log_response().complete());
    if (code != SessionResult::kSuccess) {
      Log_Level(kLogError, "Failed to set event log\n");
      Log_Level(kLogError, "Failed to handle event log response\n");
      return code;
    }
  }
  return SessionResult::kSuccess;
}

}  // namespace Witnessd::Tpm2
