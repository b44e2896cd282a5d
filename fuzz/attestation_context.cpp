// Attestation contexts as the agent sends them: the protobuf parse, then
// the TPM structures inside each response decoded as the session does.
// Invariants: what parses serializes to bytes that parse again to the same
// serialization; decoding never reads past a payload.
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/Log.h"
#include "tpm2/proto/attestation.pb.h"
#include "verify/QuoteVerify.h"

using namespace Witnessd::Verify;

namespace {

const uint8_t* Bytes(const std::string& s) {
  return reinterpret_cast<const uint8_t*>(s.data());
}
uint32_t Len(const std::string& s) {
  return static_cast<uint32_t>(s.size());
}

void DecodePayloads(const attestation::proto::Context::Message& m) {
  auto pub = std::make_unique<TPM2B_PUBLIC>();
  if (m.has_create_ak_response()) {
    Tpm2_Unmarshal_TPM2B_PUBLIC(Bytes(m.create_ak_response().ek_public()), Len(m.create_ak_response().ek_public()),
                                pub.get());
    Tpm2_Unmarshal_TPM2B_PUBLIC(Bytes(m.create_ak_response().ak_public()), Len(m.create_ak_response().ak_public()),
                                pub.get());
  }
  if (m.has_activate_ak_response()) {
    TPM2B_DIGEST digest;
    Tpm2_Unmarshal_TPM2B_DIGEST(Bytes(m.activate_ak_response().cert_info()),
                                Len(m.activate_ak_response().cert_info()), &digest);
  }
  if (m.has_quote_response()) {
    const auto& q = m.quote_response();
    TPMS_ATTEST attest;
    DecodeQuoteAttest(q.quoted().size(), Bytes(q.quoted()), &attest);
    TPMT_SIGNATURE sig;
    Tpm2_Unmarshal_TPMT_SIGNATURE(Bytes(q.signature()), Len(q.signature()), &sig);
    for (const auto& r : q.pcr_read_results()) {
      TPML_PCR_SELECTION sel;
      TPML_DIGEST values;
      Tpm2_Unmarshal_TPML_PCR_SELECTION(Bytes(r.pcr_selection_out()), Len(r.pcr_selection_out()), &sel);
      Tpm2_Unmarshal_TPML_DIGEST(Bytes(r.pcr_values()), Len(r.pcr_values()), &values);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  attestation::proto::Context context;
  if (!context.ParseFromArray(data, static_cast<int>(size))) {
    return 0;
  }
  std::string once = context.SerializeAsString();
  attestation::proto::Context again;
  if (!again.ParseFromString(once) || again.SerializeAsString() != once) {
    std::abort();
  }
  for (const auto& m : context.messages()) {
    DecodePayloads(m);
  }
  return 0;
}
