#include "tools/Agent.h"

#include <tss2/tss2_mu.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "platform/JsonParse.h"
#include "platform/lumen/Json.h"
#include "platform/lumen/JsonRpc.h"
#include "platform/lumen/Localizer.h"
#include "tools/HttpClient.h"
#include "tools/TpmBytes.h"
#include "tpm2/proto/attestation.pb.h"

namespace Witnessd::Agent {
namespace {

using Json = nlohmann::json;
using Context = attestation::proto::Context;

constexpr const char* kReportService = "com.quarro.hyv.attestation.report";
constexpr uint32_t kDecryptAttribute = 0x00020000;
// Offset of objectAttributes in a marshalled TPM2B_PUBLIC: size, type, nameAlg.
constexpr size_t kAttributesOffset = 6;

std::string AsString(const Bytes& b) { return std::string(b.begin(), b.end()); }
Bytes AsBytes(const std::string& s) { return Bytes(s.begin(), s.end()); }

// MessageText gives a reply message's default text with its "{name}"
// placeholders filled from its string arguments.
std::string MessageText(const Json& message) {
  std::vector<std::string> args;
  const Json given = message.value("args", Json::array());
  for (const Json& a : given.is_array() ? given : Json::array()) {
    if (a.is_string()) {
      args.push_back(a.get<std::string>());
    }
  }
  return Lumen::L10n::LocalizableMessageHelpers::formatMessage(message.value("default_message", ""), args);
}

// Conversation holds one attestation's state on the agent side.
class Conversation {
 public:
  Conversation(HostTpm* tpm, const AttestOptions& options, AttestResult* result)
      : tpm_(tpm), options_(options), result_(result) {}

  // Answer builds the agent's next context from the daemon's |in|; false
  // (with the result's failure set) when the TPM fails.
  bool Answer(const Context& in, Context* out, int turn) {
    out->set_session_id(in.session_id());
    if (options_.fault == Fault::kUnknownSession && turn == 0) {
      out->set_session_id(in.session_id() ^ 0x5A5A5A5A5A5A5A5AULL);
    }
    for (const Context::Message& m : in.messages()) {
      if (options_.withhold_quote && m.has_quote_request() && !m.has_event_log_request()) {
        continue;
      }
      Context::Message* answer = out->add_messages();
      if (m.has_create_ak_request() && !AnswerCreateAk(m.create_ak_request(), answer)) {
        return false;
      }
      if (m.has_activate_ak_request() && !AnswerActivateAk(m.activate_ak_request(), answer)) {
        return false;
      }
      if (m.has_quote_request() && !AnswerQuote(m.quote_request(), answer)) {
        return false;
      }
      if (m.has_event_log_request()) {
        auto* r = answer->mutable_event_log_response();
        r->set_complete(options_.log_complete);
        r->set_event_log(AsString(event_log_));
      }
    }
    if (options_.fault == Fault::kBothResponsesInOne) {
      MergeQuoteAndLog(out);
    }
    return true;
  }

  bool Prepare() {
    const BootPlan& measured = options_.measured_boot.value_or(options_.boot);
    if (options_.event_log) {
      event_log_ = *options_.event_log;
    } else {
      event_log_ = WriteEventLog(HypervisorBootEvents(options_.boot));
      if (options_.measure_boot && !MeasureBoot(tpm_, measured, HypervisorBootEvents(measured))) {
        return Fail("boot measurement: " + tpm_->LastError());
      }
    }
    if (options_.fault == Fault::kPcrAfterLog) {
      uint32_t core = options_.boot.txt ? 19 : 12;
      if (!tpm_->Extend(core, Sha256(std::string("measured after the log was written")))) {
        return Fail("extend: " + tpm_->LastError());
      }
    }
    if (!tpm_->EkPublic(&ek_public_)) {
      return Fail("EK: " + tpm_->LastError());
    }
    if (!EkPublicPem(ek_public_, &ek_public_pem_)) {
      return Fail("EK public key to PEM");
    }
    if (!options_.ek_certificate_pem.empty()) {
      ek_certificate_pem_ = options_.ek_certificate_pem;
    } else if ((options_.use_certificate || options_.send_both) && !tpm_->EkCertificatePem(&ek_certificate_pem_)) {
      return Fail("EK certificate: " + tpm_->LastError());
    }
    result_->ek_public_pem = ek_public_pem_;
    return true;
  }

  const std::string& EkCertificatePem() const { return ek_certificate_pem_; }
  std::string EkPublicPemToSend() const {
    bool by_certificate = options_.use_certificate || !options_.ek_certificate_pem.empty();
    return by_certificate && !options_.send_both ? std::string() : ek_public_pem_;
  }

 private:
  bool Fail(const std::string& text) {
    result_->failure = text;
    return false;
  }

  bool AnswerCreateAk(const attestation::proto::CreateAkRequest& request, Context::Message* answer) {
    if (options_.fault == Fault::kOutOfOrder) {
      Bytes cert_info = {0x00, 0x20};
      cert_info.resize(34, 0);
      answer->mutable_activate_ak_response()->set_cert_info(AsString(cert_info));
      return true;
    }
    Bytes ak_public;
    if (!tpm_->CreateAk(AsBytes(request.ak_template()), AsBytes(request.outside_info()), &ak_public)) {
      return Fail("create AK: " + tpm_->LastError());
    }
    if (options_.fault == Fault::kTamperedAk && ak_public.size() > kAttributesOffset + 4) {
      ak_public[kAttributesOffset + 1] |= static_cast<uint8_t>(kDecryptAttribute >> 16);
    }
    auto* r = answer->mutable_create_ak_response();
    r->set_ek_public(AsString(ek_public_));
    r->set_ak_public(AsString(ak_public));
    return true;
  }

  bool AnswerActivateAk(const attestation::proto::ActivateAkRequest& request, Context::Message* answer) {
    Bytes cert_info;
    if (!tpm_->ActivateCredential(AsBytes(request.credential_blob()), AsBytes(request.encrypted_secret()),
                                  &cert_info)) {
      return Fail("activate credential: " + tpm_->LastError());
    }
    if (options_.fault == Fault::kWrongCredential) {
      cert_info.back() ^= 0x01;
    }
    answer->mutable_activate_ak_response()->set_cert_info(AsString(cert_info));
    return true;
  }

  bool AnswerQuote(const attestation::proto::QuoteRequest& request, Context::Message* answer) {
    Bytes selection = AsBytes(request.pcr_selection());
    Bytes quoted;
    Bytes signature;
    std::vector<PcrReadResult> reads;
    if (options_.fault == Fault::kForgedAttest || options_.fault == Fault::kPartialQuote) {
      if (!ForgeQuote(request, &quoted, &signature, &reads)) {
        return false;
      }
    } else if (!tpm_->Quote(AsBytes(request.qualifying_data()), AsBytes(request.sig_scheme()), selection, &quoted,
                            &signature) ||
               !tpm_->ReadPcrs(selection, &reads)) {
      return Fail("quote: " + tpm_->LastError());
    }
    auto* r = answer->mutable_quote_response();
    r->set_quoted(AsString(quoted));
    r->set_signature(AsString(signature));
    for (const PcrReadResult& read : reads) {
      auto* entry = r->add_pcr_read_results();
      entry->set_pcr_selection_out(AsString(read.selection_out));
      entry->set_pcr_values(AsString(read.values));
    }
    return true;
  }

  // ForgeQuote makes the evidence of a compromised host: PCR reads with the
  // values its event log replays to, and a quote the real TPM signed that
  // agrees with them (see Fault).
  bool ForgeQuote(const attestation::proto::QuoteRequest& request, Bytes* quoted, Bytes* signature,
                  std::vector<PcrReadResult>* reads) {
    Bytes selection = AsBytes(request.pcr_selection());
    std::unique_ptr<HostTpm> replica = MakeSoftwareHost();
    if (!MeasureBoot(replica.get(), options_.boot, HypervisorBootEvents(options_.boot)) ||
        !replica->ReadPcrs(selection, reads)) {
      return Fail("replaying the log: " + replica->LastError());
    }
    if (options_.fault == Fault::kPartialQuote) {
      TPML_PCR_SELECTION pcr8 = {};
      pcr8.count = 1;
      pcr8.pcrSelections[0] = {TPM2_ALG_SHA256, 3, {0x00, 0x01, 0x00}};
      Bytes pcr8_bytes(sizeof(pcr8));
      size_t len = 0;
      if (Tss2_MU_TPML_PCR_SELECTION_Marshal(&pcr8, pcr8_bytes.data(), pcr8_bytes.size(), &len) != TSS2_RC_SUCCESS) {
        return Fail("marshalling the PCR 8 selection");
      }
      pcr8_bytes.resize(len);
      if (!tpm_->Quote(AsBytes(request.qualifying_data()), AsBytes(request.sig_scheme()), pcr8_bytes, quoted,
                       signature)) {
        return Fail("quote: " + tpm_->LastError());
      }
      return true;
    }
    // A genuine quote gives the signer's name and clock; the host rewrites
    // the magic and the PCR digest and has the AK sign the result.
    Bytes genuine;
    if (!tpm_->Quote(AsBytes(request.qualifying_data()), AsBytes(request.sig_scheme()), selection, &genuine,
                     signature)) {
      return Fail("quote: " + tpm_->LastError());
    }
    TPM2B_ATTEST wrapped = {};
    TPMS_ATTEST attest = {};
    size_t offset = 0;
    size_t inner = 0;
    if (Tss2_MU_TPM2B_ATTEST_Unmarshal(genuine.data(), genuine.size(), &offset, &wrapped) != TSS2_RC_SUCCESS ||
        Tss2_MU_TPMS_ATTEST_Unmarshal(wrapped.attestationData, wrapped.size, &inner, &attest) != TSS2_RC_SUCCESS) {
      return Fail("cannot read the TPM's quote");
    }
    Bytes values;
    for (const PcrReadResult& read : *reads) {
      TPML_DIGEST digests = {};
      offset = 0;
      if (Tss2_MU_TPML_DIGEST_Unmarshal(read.values.data(), read.values.size(), &offset, &digests) !=
          TSS2_RC_SUCCESS) {
        return Fail("cannot read the replayed PCR values");
      }
      for (uint32_t i = 0; i < digests.count; ++i) {
        values.insert(values.end(), digests.digests[i].buffer, digests.digests[i].buffer + digests.digests[i].size);
      }
    }
    Bytes digest = Sha256(values);
    attest.magic = 0;
    attest.attested.quote.pcrDigest.size = static_cast<uint16_t>(digest.size());
    std::memcpy(attest.attested.quote.pcrDigest.buffer, digest.data(), digest.size());
    Bytes body(sizeof(TPMS_ATTEST));
    offset = 0;
    if (Tss2_MU_TPMS_ATTEST_Marshal(&attest, body.data(), body.size(), &offset) != TSS2_RC_SUCCESS) {
      return Fail("cannot write the attestation structure");
    }
    body.resize(offset);
    if (!tpm_->SignWithAk(body, signature)) {
      return Fail("sign: " + tpm_->LastError());
    }
    wrapped.size = static_cast<uint16_t>(body.size());
    std::memcpy(wrapped.attestationData, body.data(), body.size());
    quoted->assign(sizeof(TPM2B_ATTEST), 0);
    offset = 0;
    if (Tss2_MU_TPM2B_ATTEST_Marshal(&wrapped, quoted->data(), quoted->size(), &offset) != TSS2_RC_SUCCESS) {
      return Fail("cannot wrap the attestation structure");
    }
    quoted->resize(offset);
    return true;
  }

  static void MergeQuoteAndLog(Context* out) {
    Context::Message* quote = nullptr;
    for (int i = 0; i < out->messages_size(); ++i) {
      Context::Message* m = out->mutable_messages(i);
      if (m->has_quote_response()) {
        quote = m;
      }
    }
    for (int i = 0; quote != nullptr && i < out->messages_size(); ++i) {
      Context::Message* m = out->mutable_messages(i);
      if (m->has_event_log_response()) {
        *quote->mutable_event_log_response() = m->event_log_response();
        out->mutable_messages()->DeleteSubrange(i, 1);
        return;
      }
    }
  }

  HostTpm* tpm_;
  const AttestOptions& options_;
  AttestResult* result_;
  Bytes ek_public_;
  std::string ek_public_pem_;
  std::string ek_certificate_pem_;
  Bytes event_log_;
};

}  // namespace

std::string MakeReportRequest(const std::string& id, const std::vector<std::string>& document_types,
                              const std::vector<Bytes>& contexts, const std::string& ek_certificate_pem,
                              const std::string& ek_public_pem) {
  Json ek = Json::object();
  if (!ek_certificate_pem.empty()) {
    ek["certificate"] = ek_certificate_pem;
  }
  if (!ek_public_pem.empty()) {
    ek["public_key"] = ek_public_pem;
  }
  Json encoded = Json::array();
  for (const Bytes& c : contexts) {
    encoded.push_back(Lumen::Json::Base64Encode(c));
  }
  Json request = {{"type", "TPM2"},
                  {"tpm2", {{"document_types", document_types}, {"contexts", encoded}, {"ek", ek}}}};
  Lumen::JsonRpc::Call call;
  call.id = id;
  call.service_id = kReportService;
  call.operation_id = "create";
  call.input = {{"request", request}};
  return Lumen::JsonRpc::CallBody(call);
}

AttestResult AttestWith(HostTpm* tpm, const AttestOptions& options, const ReportTransport& transport) {
  AttestResult result;
  Conversation conversation(tpm, options, &result);
  if (!conversation.Prepare()) {
    return result;
  }
  ReportCall call;
  call.document_types = options.document_types;
  call.ek_certificate_pem = conversation.EkCertificatePem();
  call.ek_public_pem = conversation.EkPublicPemToSend();
  for (int turn = 0;; ++turn) {
    if (options.max_turns > 0 && turn >= options.max_turns) {
      return result;
    }
    call.turn = turn;
    ReportAnswer answer;
    auto start = std::chrono::steady_clock::now();
    bool answered = transport(call, &answer, &result.failure);
    result.turn_seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    result.turns = turn + 1;
    if (!answered) {
      return result;
    }
    if (!answer.error_type.empty()) {
      result.error_type = answer.error_type;
      result.error_id = answer.error_id;
      result.error_text = answer.error_text;
      return result;
    }
    if (answer.done) {
      result.documents = std::move(answer.documents);
      result.ok = true;
      return result;
    }
    Context in;
    if (!in.ParseFromArray(answer.context.data(), static_cast<int>(answer.context.size()))) {
      result.failure = "undecodable context";
      return result;
    }
    result.session_id = in.session_id();
    Context next;
    if (!conversation.Answer(in, &next, turn)) {
      return result;
    }
    call.contexts = {AsBytes(next.SerializeAsString())};
  }
}

ReportTransport OverHttp(const std::string& host, uint16_t port, const std::string& content_type) {
  auto client = std::make_shared<HttpClient>(host, port);
  return [client, content_type](const ReportCall& call, ReportAnswer* out, std::string* failure) {
    std::string body = MakeReportRequest(std::to_string(call.turn + 1), call.document_types, call.contexts,
                                         call.ek_certificate_pem, call.ek_public_pem);
    int status = 0;
    std::string reply;
    std::string error;
    if (!client->Post("/api", content_type, body, &status, &reply, &error)) {
      *failure = "HTTP: " + error;
      return false;
    }
    if (status != 200) {
      *failure = "HTTP status " + std::to_string(status) + ": " + reply;
      return false;
    }
    Json json = Hearth::ParseJson(reply);
    if (json.is_discarded() || !json.contains("result")) {
      *failure = "malformed reply: " + reply;
      return false;
    }
    const Json& result = json["result"];
    if (result.contains("error") && result["error"].is_object()) {
      const Json& e = result["error"];
      out->error_type = e.value("error_type", "");
      if (e.contains("messages") && e["messages"].is_array() && !e["messages"].empty() &&
          e["messages"][0].is_object()) {
        out->error_id = e["messages"][0].value("id", "");
        out->error_text = MessageText(e["messages"][0]);
      }
      return true;
    }
    const Json output = result.value("output", Json());
    if (output.is_object() && output.contains("documents") && output["documents"].is_array()) {
      for (const Json& d : output["documents"]) {
        out->documents.emplace_back(d.value("type", ""), d.value("document", ""));
      }
      out->done = true;
      return true;
    }
    if (!output.is_object() || !output.contains("contexts") || !output["contexts"].is_array() ||
        output["contexts"].size() != 1 || !output["contexts"][0].is_string() ||
        !Lumen::Json::Base64Decode(output["contexts"][0].get<std::string>(), &out->context)) {
      *failure = "reply holds neither contexts nor documents: " + reply;
      return false;
    }
    return true;
  };
}

AttestResult Attest(HostTpm* tpm, const std::string& host, uint16_t port, const AttestOptions& options) {
  return AttestWith(tpm, options, OverHttp(host, port, options.content_type));
}

}  // namespace Witnessd::Agent
