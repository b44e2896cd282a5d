// Quote verification over hostile evidence. Input layout: u16 AK length,
// AK (TPM2B_PUBLIC), u16 quote length, quote (TPM2B_ATTEST), u16 signature
// length, signature (TPMT_SIGNATURE), u8 nonce length, nonce, then bytes
// that fill the PCR value table from the start. Invariant: the status is
// one of the documented category/code pairs.
#include <cstdlib>
#include <cstring>

#include "platform/Log.h"
#include "verify/QuoteVerify.h"

using namespace Witnessd::Verify;

namespace {

bool Take(const uint8_t** data, size_t* size, size_t n, ByteView* out) {
  if (*size < n) {
    return false;
  }
  *out = {n, n ? *data : nullptr};
  *data += n;
  *size -= n;
  return true;
}

bool TakeLen(const uint8_t** data, size_t* size, size_t width, size_t* out) {
  if (*size < width) {
    return false;
  }
  *out = width == 2 ? size_t{(*data)[0]} << 8 | (*data)[1] : (*data)[0];
  *data += width;
  *size -= width;
  return true;
}

bool Known(VerifyStatus s) {
  for (VerifyStatus k : {kVerifyOk, kAkInvalid, kQuoteUndecodable, kSignatureInvalid, kEvidenceInvalid, kNonceAbsent,
                         kAttestHashFailed, kSignatureMismatch, kNonceLengthMismatch, kNonceMismatch,
                         kPcrDigestLengthMismatch, kPcrDigestMismatch, kPcrHashFailed, kMagicMismatch,
                         kPcrSelectionMismatch}) {
    if (s == k) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  static QuoteEvidence evidence;
  ByteView ak, nonce;
  size_t len;
  if (!TakeLen(&data, &size, 2, &len) || !Take(&data, &size, len, &ak) || !TakeLen(&data, &size, 2, &len) ||
      !Take(&data, &size, len, &evidence.quote) || !TakeLen(&data, &size, 2, &len) ||
      !Take(&data, &size, len, &evidence.signature) || !TakeLen(&data, &size, 1, &len) ||
      !Take(&data, &size, len, &nonce)) {
    return 0;
  }
  std::memset(evidence.pcrs, 0, sizeof(evidence.pcrs));
  std::memcpy(evidence.pcrs, data, size < sizeof(evidence.pcrs) ? size : sizeof(evidence.pcrs));
  // The strict requirements: SHA-256 PCRs 8-15 and 17-22.
  static const QuoteRequirements required = {{1, {{kTpmAlgSha256, 3, {0x00, 0xff, 0x7e, 0x00}}}}};
  if (!Known(VerifyQuote(&evidence, ak, nonce, nullptr)) || !Known(VerifyQuote(&evidence, ak, nonce, &required)) ||
      !Known(VerifyQuoteNonce(&evidence, nonce)) || !Known(VerifyQuoteOrigin(&evidence, required)) ||
      !Known(VerifyQuotePcrDigest(&evidence))) {
    std::abort();
  }
  TPMS_ATTEST attest;
  if (DecodeQuoteAttest(evidence.quote.len, evidence.quote.data, &attest) &&
      (attest.type != kTpmStAttestQuote || attest.pcrSelect.count > kMaxPcrSelections)) {
    std::abort();
  }
  return 0;
}
