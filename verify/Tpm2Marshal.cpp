#include "verify/Tpm2Marshal.h"

#include <cstring>

#include "platform/ByteCursor.h"

namespace Witnessd::Verify {
namespace {

using Hearth::ByteCursor;

// ReadTpm2b reads a TPM2B (UINT16 size, then that many bytes) of at most
// |capacity| bytes into size/buffer.
bool ReadTpm2b(ByteCursor* r, uint16_t capacity, uint16_t* out_size, uint8_t* out_buffer) {
  uint16_t size;
  const uint8_t* bytes;
  if (!r->U16Be(&size) || size > capacity || !r->Bytes(size, &bytes)) {
    return false;
  }
  *out_size = size;
  std::memcpy(out_buffer, bytes, size);
  return true;
}
template <typename T>
bool ReadTpm2b(ByteCursor* r, T* out) {
  return ReadTpm2b(r, T::kMax, &out->size, out->buffer);
}

// Consumed is what a whole read took, as the codec's length type.
uint32_t Consumed(const ByteCursor& r) {
  return static_cast<uint32_t>(r.Consumed());
}

// Bounded big-endian writer; a write that does not fit fails and sets the
// writer to failed for good, so a chain of writes needs one check at the end.
class ByteWriter {
 public:
  ByteWriter(uint8_t* data, uint32_t len) : data_(data), capacity_(data ? len : 0) {}

  bool PutBytes(const uint8_t* p, size_t n) {
    if (!ok_ || capacity_ - written_ < n) {
      ok_ = false;
      return false;
    }
    if (n > 0) {
      std::memcpy(data_ + written_, p, n);
    }
    written_ += n;
    return true;
  }
  bool PutU8(uint8_t v) { return PutBytes(&v, 1); }
  bool PutU16(uint16_t v) {
    const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    return PutBytes(b, 2);
  }
  bool PutU32(uint32_t v) {
    const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                          static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    return PutBytes(b, 4);
  }
  bool PutTpm2b(uint16_t capacity, uint16_t size, const uint8_t* buffer) {
    if (size > capacity) {
      ok_ = false;
      return false;
    }
    return PutU16(size) && PutBytes(buffer, size);
  }
  template <typename T>
  bool PutTpm2b(const T& in) {
    return PutTpm2b(T::kMax, in.size, in.buffer);
  }
  // Overwrites a 16-bit value written earlier at |offset|.
  void PatchU16(size_t offset, uint16_t v) {
    if (ok_ && offset + 2 <= written_) {
      data_[offset] = static_cast<uint8_t>(v >> 8);
      data_[offset + 1] = static_cast<uint8_t>(v);
    }
  }
  void Fail() { ok_ = false; }
  bool ok() const { return ok_; }
  size_t Written() const { return written_; }
  uint32_t Result() const { return ok_ ? static_cast<uint32_t>(written_) : 0; }

 private:
  uint8_t* data_;
  size_t capacity_;
  size_t written_ = 0;
  bool ok_ = true;
};

// Digest size of a TPMT_HA hash selector; NULL carries no digest. Returns
// false for any other selector.
bool HaDigestSize(uint16_t alg, uint16_t* out) {
  switch (alg) {
    case kTpmAlgSha1: *out = 20; return true;
    case kTpmAlgSha256: *out = 32; return true;
    case kTpmAlgSha384: *out = 48; return true;
    case kTpmAlgSha512: *out = 64; return true;
    case kTpmAlgSm3_256: *out = 32; return true;
    case kTpmAlgNull: *out = 0; return true;
    default: return false;
  }
}

bool ReadHa(ByteCursor* r, TPMT_HA* out) {
  uint16_t size;
  const uint8_t* bytes;
  if (!r->U16Be(&out->hashAlg) || !HaDigestSize(out->hashAlg, &size) || !r->Bytes(size, &bytes)) {
    return false;
  }
  std::memcpy(out->digest, bytes, size);
  return true;
}

bool WriteHa(ByteWriter* w, const TPMT_HA& in) {
  uint16_t size;
  if (!HaDigestSize(in.hashAlg, &size)) {
    w->Fail();
    return false;
  }
  return w->PutU16(in.hashAlg) && w->PutBytes(in.digest, size);
}

// TPMS_PCR_SELECTION: hash UINT16, sizeofSelect UINT8, pcrSelect BYTE[sizeofSelect].
bool ReadPcrSelectionList(ByteCursor* r, TPML_PCR_SELECTION* out) {
  if (!r->U32Be(&out->count) || out->count > kMaxPcrSelections) {  // count UINT32
    return false;
  }
  for (uint32_t i = 0; i < out->count; ++i) {
    TPMS_PCR_SELECTION& s = out->pcrSelections[i];
    const uint8_t* select;
    if (!r->U16Be(&s.hash) || !r->U8(&s.sizeofSelect) || s.sizeofSelect > kMaxSizeofSelect ||
        !r->Bytes(s.sizeofSelect, &select)) {
      return false;
    }
    std::memset(s.pcrSelect, 0, sizeof(s.pcrSelect));
    std::memcpy(s.pcrSelect, select, s.sizeofSelect);
  }
  return true;
}

bool WritePcrSelectionList(ByteWriter* w, const TPML_PCR_SELECTION& in) {
  if (in.count > kMaxPcrSelections) {
    w->Fail();
    return false;
  }
  w->PutU32(in.count);
  for (uint32_t i = 0; i < in.count; ++i) {
    const TPMS_PCR_SELECTION& s = in.pcrSelections[i];
    if (s.sizeofSelect > kMaxSizeofSelect) {
      w->Fail();
      return false;
    }
    w->PutU16(s.hash);
    w->PutU8(s.sizeofSelect);
    w->PutBytes(s.pcrSelect, s.sizeofSelect);
  }
  return w->ok();
}

bool ReadDigestList(ByteCursor* r, TPML_DIGEST* out) {
  if (!r->U32Be(&out->count) || out->count > kMaxDigestListCount) {  // count UINT32
    return false;
  }
  for (uint32_t i = 0; i < out->count; ++i) {
    if (!ReadTpm2b(r, &out->digests[i])) {  // digests TPM2B_DIGEST[count]
      return false;
    }
  }
  return true;
}

bool WriteDigestList(ByteWriter* w, const TPML_DIGEST& in) {
  if (in.count > kMaxDigestListCount) {
    w->Fail();
    return false;
  }
  w->PutU32(in.count);
  for (uint32_t i = 0; i < in.count; ++i) {
    w->PutTpm2b(in.digests[i]);
  }
  return w->ok();
}

bool SymHasMode(uint16_t alg) {
  return alg == kTpmAlgAes || alg == kTpmAlgSm4 || alg == kTpmAlgCamellia;
}

// TPMT_SYM_DEF_OBJECT: algorithm, then keyBits (the hash for XOR) and mode
// (block ciphers only); NULL has nothing after the algorithm.
bool ReadSymDef(ByteCursor* r, TPMT_SYM_DEF_OBJECT* out) {
  out->keyBits = 0;
  out->mode = 0;
  if (!r->U16Be(&out->algorithm)) {
    return false;
  }
  switch (out->algorithm) {
    case kTpmAlgNull:
      return true;
    case kTpmAlgXor:
      return r->U16Be(&out->keyBits);
    case kTpmAlgAes:
    case kTpmAlgSm4:
    case kTpmAlgCamellia:
      return r->U16Be(&out->keyBits) && r->U16Be(&out->mode);
    default:
      return false;
  }
}

bool WriteSymDef(ByteWriter* w, const TPMT_SYM_DEF_OBJECT& in) {
  switch (in.algorithm) {
    case kTpmAlgNull:
      return w->PutU16(in.algorithm);
    case kTpmAlgXor:
      return w->PutU16(in.algorithm) && w->PutU16(in.keyBits);
    default:
      if (!SymHasMode(in.algorithm)) {
        w->Fail();
        return false;
      }
      return w->PutU16(in.algorithm) && w->PutU16(in.keyBits) && w->PutU16(in.mode);
  }
}

enum class SchemeDetails { kNone, kHash, kHashCount, kInvalid };

SchemeDetails AsymSchemeDetails(uint16_t scheme) {
  switch (scheme) {
    case kTpmAlgNull:
    case kTpmAlgRsaes:
      return SchemeDetails::kNone;
    case kTpmAlgRsassa:
    case kTpmAlgRsapss:
    case kTpmAlgOaep:
    case kTpmAlgEcdsa:
    case kTpmAlgEcdh:
    case kTpmAlgSm2:
    case kTpmAlgEcschnorr:
    case kTpmAlgEcmqv:
      return SchemeDetails::kHash;
    case kTpmAlgEcdaa:
      return SchemeDetails::kHashCount;
    default:
      return SchemeDetails::kInvalid;
  }
}

SchemeDetails SigSchemeDetails(uint16_t scheme) {
  switch (scheme) {
    case kTpmAlgNull:
      return SchemeDetails::kNone;
    case kTpmAlgHmac:
    case kTpmAlgRsassa:
    case kTpmAlgRsapss:
    case kTpmAlgEcdsa:
    case kTpmAlgSm2:
    case kTpmAlgEcschnorr:
      return SchemeDetails::kHash;
    case kTpmAlgEcdaa:
      return SchemeDetails::kHashCount;
    default:
      return SchemeDetails::kInvalid;
  }
}

// scheme UINT16, then details: hashAlg UINT16 and, for ECDAA, count UINT16.
bool ReadScheme(ByteCursor* r, SchemeDetails (*details)(uint16_t), TPMT_SIG_SCHEME* out) {
  out->hashAlg = 0;
  out->count = 0;
  if (!r->U16Be(&out->scheme)) {
    return false;
  }
  switch (details(out->scheme)) {
    case SchemeDetails::kNone:
      return true;
    case SchemeDetails::kHash:
      return r->U16Be(&out->hashAlg);
    case SchemeDetails::kHashCount:
      return r->U16Be(&out->hashAlg) && r->U16Be(&out->count);
    case SchemeDetails::kInvalid:
      break;
  }
  return false;
}

bool WriteScheme(ByteWriter* w, SchemeDetails (*details)(uint16_t), const TPMT_SIG_SCHEME& in) {
  switch (details(in.scheme)) {
    case SchemeDetails::kNone:
      return w->PutU16(in.scheme);
    case SchemeDetails::kHash:
      return w->PutU16(in.scheme) && w->PutU16(in.hashAlg);
    case SchemeDetails::kHashCount:
      return w->PutU16(in.scheme) && w->PutU16(in.hashAlg) && w->PutU16(in.count);
    case SchemeDetails::kInvalid:
      break;
  }
  w->Fail();
  return false;
}

// TPMT_KEYEDHASH_SCHEME: HMAC (hash), XOR (hash, kdf) or NULL.
bool ReadKeyedHashScheme(ByteCursor* r, TPMT_SIG_SCHEME* out) {
  out->hashAlg = 0;
  out->count = 0;
  if (!r->U16Be(&out->scheme)) {
    return false;
  }
  switch (out->scheme) {
    case kTpmAlgNull:
      return true;
    case kTpmAlgHmac:
      return r->U16Be(&out->hashAlg);
    case kTpmAlgXor:
      return r->U16Be(&out->hashAlg) && r->U16Be(&out->count);
    default:
      return false;
  }
}

bool WriteKeyedHashScheme(ByteWriter* w, const TPMT_SIG_SCHEME& in) {
  switch (in.scheme) {
    case kTpmAlgNull:
      return w->PutU16(in.scheme);
    case kTpmAlgHmac:
      return w->PutU16(in.scheme) && w->PutU16(in.hashAlg);
    case kTpmAlgXor:
      return w->PutU16(in.scheme) && w->PutU16(in.hashAlg) && w->PutU16(in.count);
    default:
      w->Fail();
      return false;
  }
}

bool KdfHasHash(uint16_t scheme, bool* out) {
  switch (scheme) {
    case kTpmAlgMgf1:
    case kTpmAlgKdf1Sp800_56a:
    case kTpmAlgKdf2:
    case kTpmAlgKdf1Sp800_108:
      *out = true;
      return true;
    case kTpmAlgNull:
      *out = false;
      return true;
    default:
      return false;
  }
}

bool ReadPublicArea(ByteCursor* r, TPMT_PUBLIC* out) {
  TPMS_PUBLIC_PARMS& p = out->parameters;
  std::memset(&p, 0, sizeof(p));
  if (!r->U16Be(&out->type) ||              // type              TPMI_ALG_PUBLIC
      !r->U16Be(&out->nameAlg) ||           // nameAlg           TPMI_ALG_HASH
      !r->U32Be(&out->objectAttributes) ||  // objectAttributes  TPMA_OBJECT
      !ReadTpm2b(r, &out->authPolicy)) {      // authPolicy        TPM2B_DIGEST
    return false;
  }
  switch (out->type) {
    case kTpmAlgRsa:  // TPMS_RSA_PARMS, TPM2B_PUBLIC_KEY_RSA
      return ReadSymDef(r, &p.symmetric) && ReadScheme(r, AsymSchemeDetails, &p.scheme) &&
             r->U16Be(&p.keyBits) && r->U32Be(&p.exponent) && ReadTpm2b(r, &out->unique.rsa);
    case kTpmAlgKeyedHash:  // TPMS_KEYEDHASH_PARMS, TPM2B_DIGEST
      return ReadKeyedHashScheme(r, &p.scheme) && ReadTpm2b(r, &out->unique.sym);
    case kTpmAlgSymCipher:  // TPMS_SYMCIPHER_PARMS, TPM2B_DIGEST
      return ReadSymDef(r, &p.symmetric) && ReadTpm2b(r, &out->unique.sym);
    case kTpmAlgEcc: {  // TPMS_ECC_PARMS, TPMS_ECC_POINT
      bool kdf_hash;
      if (!ReadSymDef(r, &p.symmetric) || !ReadScheme(r, AsymSchemeDetails, &p.scheme) ||
          !r->U16Be(&p.curveID) || !r->U16Be(&p.kdf.scheme) || !KdfHasHash(p.kdf.scheme, &kdf_hash)) {
        return false;
      }
      if (kdf_hash && !r->U16Be(&p.kdf.hashAlg)) {
        return false;
      }
      return ReadTpm2b(r, &out->unique.ecc.x) && ReadTpm2b(r, &out->unique.ecc.y);
    }
    default:
      return false;
  }
}

bool WritePublicArea(ByteWriter* w, const TPMT_PUBLIC& in) {
  const TPMS_PUBLIC_PARMS& p = in.parameters;
  w->PutU16(in.type);
  w->PutU16(in.nameAlg);
  w->PutU32(in.objectAttributes);
  w->PutTpm2b(in.authPolicy);
  switch (in.type) {
    case kTpmAlgRsa:
      return WriteSymDef(w, p.symmetric) && WriteScheme(w, AsymSchemeDetails, p.scheme) &&
             w->PutU16(p.keyBits) && w->PutU32(p.exponent) && w->PutTpm2b(in.unique.rsa);
    case kTpmAlgKeyedHash:
      return WriteKeyedHashScheme(w, p.scheme) && w->PutTpm2b(in.unique.sym);
    case kTpmAlgSymCipher:
      return WriteSymDef(w, p.symmetric) && w->PutTpm2b(in.unique.sym);
    case kTpmAlgEcc: {
      bool kdf_hash;
      if (!WriteSymDef(w, p.symmetric) || !WriteScheme(w, AsymSchemeDetails, p.scheme) ||
          !w->PutU16(p.curveID) || !KdfHasHash(p.kdf.scheme, &kdf_hash) || !w->PutU16(p.kdf.scheme)) {
        w->Fail();
        return false;
      }
      if (kdf_hash) {
        w->PutU16(p.kdf.hashAlg);
      }
      return w->PutTpm2b(in.unique.ecc.x) && w->PutTpm2b(in.unique.ecc.y);
    }
    default:
      w->Fail();
      return false;
  }
}

bool ReadSignature(ByteCursor* r, TPMT_SIGNATURE* out) {
  if (!r->U16Be(&out->sigAlg)) {  // sigAlg TPMI_ALG_SIG_SCHEME
    return false;
  }
  switch (out->sigAlg) {
    case kTpmAlgNull:
      return true;
    case kTpmAlgHmac:  // TPMT_HA
      return ReadHa(r, &out->signature.hmac);
    case kTpmAlgRsassa:
    case kTpmAlgRsapss:  // hash, TPM2B_PUBLIC_KEY_RSA
      return r->U16Be(&out->signature.rsassa.hash) && ReadTpm2b(r, &out->signature.rsassa.sig);
    case kTpmAlgEcdsa:
    case kTpmAlgEcdaa:
    case kTpmAlgSm2:
    case kTpmAlgEcschnorr:  // hash, signatureR, signatureS
      return r->U16Be(&out->signature.ecdsa.hash) && ReadTpm2b(r, &out->signature.ecdsa.signatureR) &&
             ReadTpm2b(r, &out->signature.ecdsa.signatureS);
    default:
      return false;
  }
}

bool WriteSignature(ByteWriter* w, const TPMT_SIGNATURE& in) {
  switch (in.sigAlg) {
    case kTpmAlgNull:
      return w->PutU16(in.sigAlg);
    case kTpmAlgHmac:
      return w->PutU16(in.sigAlg) && WriteHa(w, in.signature.hmac);
    case kTpmAlgRsassa:
    case kTpmAlgRsapss:
      return w->PutU16(in.sigAlg) && w->PutU16(in.signature.rsassa.hash) &&
             w->PutTpm2b(in.signature.rsassa.sig);
    case kTpmAlgEcdsa:
    case kTpmAlgEcdaa:
    case kTpmAlgSm2:
    case kTpmAlgEcschnorr:
      return w->PutU16(in.sigAlg) && w->PutU16(in.signature.ecdsa.hash) &&
             w->PutTpm2b(in.signature.ecdsa.signatureR) && w->PutTpm2b(in.signature.ecdsa.signatureS);
    default:
      w->Fail();
      return false;
  }
}

template <typename T>
uint32_t MarshalSized(const T* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  w.PutTpm2b(*in);
  return w.Result();
}

template <typename T>
uint32_t UnmarshalSized(const uint8_t* src, uint32_t src_len, T* out) {
  ByteCursor r(src, src_len);
  return ReadTpm2b(&r, out) ? Consumed(r) : 0;
}

}  // namespace

uint32_t Tpm2_Marshal_TPM2B_DATA(const TPM2B_DATA* in, uint8_t* dst, uint32_t dst_len) {
  return MarshalSized(in, dst, dst_len);
}
uint32_t Tpm2_Marshal_TPM2B_DIGEST(const TPM2B_DIGEST* in, uint8_t* dst, uint32_t dst_len) {
  return MarshalSized(in, dst, dst_len);
}

uint32_t Tpm2_Unmarshal_TPM2B_DATA(const uint8_t* src, uint32_t src_len, TPM2B_DATA* out) {
  return UnmarshalSized(src, src_len, out);
}
uint32_t Tpm2_Unmarshal_TPM2B_DIGEST(const uint8_t* src, uint32_t src_len, TPM2B_DIGEST* out) {
  return UnmarshalSized(src, src_len, out);
}
uint32_t Tpm2_Unmarshal_TPM2B_ATTEST(const uint8_t* src, uint32_t src_len, TPM2B_ATTEST* out) {
  return UnmarshalSized(src, src_len, out);
}

uint32_t Tpm2_Marshal_TPM2B_PUBLIC(const TPM2B_PUBLIC* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  w.PutU16(0);  // size, patched with the public area's length
  if (!WritePublicArea(&w, in->publicArea) || w.Written() - 2 > 0xffff) {
    return 0;
  }
  w.PatchU16(0, static_cast<uint16_t>(w.Written() - 2));
  return w.Result();
}

uint32_t Tpm2_Unmarshal_TPM2B_PUBLIC(const uint8_t* src, uint32_t src_len, TPM2B_PUBLIC* out) {
  ByteCursor r(src, src_len);
  ByteCursor area;
  if (!r.U16Be(&out->size) || !r.Sub(out->size, &area) ||  // size UINT16, publicArea
      !ReadPublicArea(&area, &out->publicArea) || area.Remaining() != 0) {
    return 0;
  }
  return Consumed(r);
}

uint32_t Tpm2_Unmarshal_TPMT_PUBLIC(const uint8_t* src, uint32_t src_len, TPMT_PUBLIC* out) {
  ByteCursor r(src, src_len);
  return ReadPublicArea(&r, out) ? Consumed(r) : 0;
}

uint32_t Tpm2_Unmarshal_TPMS_ATTEST(const uint8_t* src, uint32_t src_len, TPMS_ATTEST* out) {
  ByteCursor r(src, src_len);
  if (!r.U32Be(&out->magic) ||                     // magic            TPM_GENERATED
      !r.U16Be(&out->type) ||                      // type             TPMI_ST_ATTEST
      out->type != kTpmStAttestQuote ||            //   quotes only
      !ReadTpm2b(&r, &out->qualifiedSigner) ||     // qualifiedSigner  TPM2B_NAME
      !ReadTpm2b(&r, &out->extraData) ||           // extraData        TPM2B_DATA
      !r.U64Be(&out->clockInfo.clock) ||           // clockInfo        TPMS_CLOCK_INFO
      !r.U32Be(&out->clockInfo.resetCount) ||
      !r.U32Be(&out->clockInfo.restartCount) ||
      !r.U8(&out->clockInfo.safe) ||
      !r.U64Be(&out->firmwareVersion) ||           // firmwareVersion  UINT64
      !ReadPcrSelectionList(&r, &out->pcrSelect) ||  // attested.quote.pcrSelect
      !ReadTpm2b(&r, &out->pcrDigest)) {             // attested.quote.pcrDigest
    return 0;
  }
  return Consumed(r);
}

uint32_t Tpm2_Marshal_TPMT_SIGNATURE(const TPMT_SIGNATURE* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  return WriteSignature(&w, *in) ? w.Result() : 0;
}

uint32_t Tpm2_Unmarshal_TPMT_SIGNATURE(const uint8_t* src, uint32_t src_len, TPMT_SIGNATURE* out) {
  ByteCursor r(src, src_len);
  return ReadSignature(&r, out) ? Consumed(r) : 0;
}

uint32_t Tpm2_Marshal_TPMT_SIG_SCHEME(const TPMT_SIG_SCHEME* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  return WriteScheme(&w, SigSchemeDetails, *in) ? w.Result() : 0;
}

uint32_t Tpm2_Unmarshal_TPMT_SIG_SCHEME(const uint8_t* src, uint32_t src_len, TPMT_SIG_SCHEME* out) {
  ByteCursor r(src, src_len);
  return ReadScheme(&r, SigSchemeDetails, out) ? Consumed(r) : 0;
}

uint32_t Tpm2_Marshal_TPML_PCR_SELECTION(const TPML_PCR_SELECTION* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  return WritePcrSelectionList(&w, *in) ? w.Result() : 0;
}

uint32_t Tpm2_Unmarshal_TPML_PCR_SELECTION(const uint8_t* src, uint32_t src_len,
                                           TPML_PCR_SELECTION* out) {
  ByteCursor r(src, src_len);
  return ReadPcrSelectionList(&r, out) ? Consumed(r) : 0;
}

uint32_t Tpm2_Marshal_TPML_DIGEST(const TPML_DIGEST* in, uint8_t* dst, uint32_t dst_len) {
  ByteWriter w(dst, dst_len);
  return WriteDigestList(&w, *in) ? w.Result() : 0;
}

uint32_t Tpm2_Unmarshal_TPML_DIGEST(const uint8_t* src, uint32_t src_len, TPML_DIGEST* out) {
  ByteCursor r(src, src_len);
  return ReadDigestList(&r, out) ? Consumed(r) : 0;
}

}  // namespace Witnessd::Verify
