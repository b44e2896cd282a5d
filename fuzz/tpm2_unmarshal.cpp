// Every TPM 2.0 unmarshaller, picked by the first input byte. Invariants: a
// success consumes at most the input, and where a marshaller exists,
// marshalling the record again reproduces exactly the bytes consumed.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/Log.h"
#include "verify/Tpm2Marshal.h"

using namespace Witnessd::Verify;

namespace {

template <typename T>
using Unmarshal = uint32_t (*)(const uint8_t*, uint32_t, T*);
template <typename T>
using Marshal = uint32_t (*)(const T*, uint8_t*, uint32_t);

template <typename T>
void Check(const uint8_t* data, uint32_t size, Unmarshal<T> unmarshal, Marshal<T> marshal = nullptr) {
  auto record = std::make_unique<T>();
  uint32_t consumed = unmarshal(data, size, record.get());
  if (consumed > size) {
    std::abort();
  }
  if (consumed == 0 || marshal == nullptr) {
    return;
  }
  auto again = std::make_unique<uint8_t[]>(consumed + 1);
  uint32_t written = marshal(record.get(), again.get(), consumed + 1);
  if (written != consumed || std::memcmp(again.get(), data, consumed) != 0) {
    std::abort();
  }
  // One byte less room must fail, not overflow.
  if (marshal(record.get(), again.get(), consumed - 1) != 0) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = (Log_SetMaxLevel(kLogError), true);
  (void)quiet;
  if (size < 1 || size > 0xffff) {
    return 0;
  }
  const uint8_t* in = data + 1;
  uint32_t n = static_cast<uint32_t>(size - 1);
  switch (data[0] % 10) {
    case 0: Check<TPM2B_DATA>(in, n, Tpm2_Unmarshal_TPM2B_DATA, Tpm2_Marshal_TPM2B_DATA); break;
    case 1: Check<TPM2B_DIGEST>(in, n, Tpm2_Unmarshal_TPM2B_DIGEST, Tpm2_Marshal_TPM2B_DIGEST); break;
    case 2: Check<TPM2B_ATTEST>(in, n, Tpm2_Unmarshal_TPM2B_ATTEST); break;
    case 3: Check<TPM2B_PUBLIC>(in, n, Tpm2_Unmarshal_TPM2B_PUBLIC, Tpm2_Marshal_TPM2B_PUBLIC); break;
    case 4: Check<TPMT_PUBLIC>(in, n, Tpm2_Unmarshal_TPMT_PUBLIC); break;
    case 5: Check<TPMS_ATTEST>(in, n, Tpm2_Unmarshal_TPMS_ATTEST); break;
    case 6: Check<TPMT_SIGNATURE>(in, n, Tpm2_Unmarshal_TPMT_SIGNATURE, Tpm2_Marshal_TPMT_SIGNATURE); break;
    case 7: Check<TPMT_SIG_SCHEME>(in, n, Tpm2_Unmarshal_TPMT_SIG_SCHEME, Tpm2_Marshal_TPMT_SIG_SCHEME); break;
    case 8:
      Check<TPML_PCR_SELECTION>(in, n, Tpm2_Unmarshal_TPML_PCR_SELECTION, Tpm2_Marshal_TPML_PCR_SELECTION);
      break;
    case 9: Check<TPML_DIGEST>(in, n, Tpm2_Unmarshal_TPML_DIGEST, Tpm2_Marshal_TPML_DIGEST); break;
  }
  return 0;
}
