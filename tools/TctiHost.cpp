// HostTpm over tpm2-tss ESAPI: any TCTI (a real host's TPM through its
// resource manager), or a swtpm on loopback whose control channel lets tests
// power-cycle it and run a dynamic launch.
#include <spawn.h>
#include <sys/wait.h>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <tss2/tss2_esys.h>
#include <tss2/tss2_mu.h>
#include <tss2/tss2_rc.h>
#include <tss2/tss2_tctildr.h>

#include <cstring>
#include <memory>

#include "tools/HostTpm.h"
#include "tools/TpmBytes.h"

extern char** environ;

namespace Witnessd::Agent {
namespace {

constexpr TPM2_HANDLE kEkCertificateIndex = 0x01c00002;
// Where a provisioned host keeps its RSA EK.
constexpr TPM2_HANDLE kEkPersistentHandle = 0x81010001;
constexpr uint16_t kNvReadChunk = 512;

template <typename T>
struct EsysFree {
  void operator()(T* p) const { Esys_Free(p); }
};
template <typename T>
using EsysPtr = std::unique_ptr<T, EsysFree<T>>;

class TctiHost : public HostTpm {
 public:
  // |control_port| is the swtpm's control channel, 0 for a host that is
  // already booted and must not be reset.
  TctiHost(std::string conf, uint16_t control_port) : conf_(std::move(conf)), control_port_(control_port) {}
  ~TctiHost() override {
    if (esys_ != nullptr) {
      // Objects this agent loaded go; a persistent EK stays where it is.
      if (ak_ != ESYS_TR_NONE) {
        Esys_FlushContext(esys_, ak_);
      }
      if (ek_ != ESYS_TR_NONE) {
        ek_persistent_ ? Esys_TR_Close(esys_, &ek_) : Esys_FlushContext(esys_, ek_);
      }
      Esys_Finalize(&esys_);
    }
    if (tcti_ != nullptr) {
      Tss2_TctiLdr_Finalize(&tcti_);
    }
  }

  bool Open() {
    TSS2_RC rc = Tss2_TctiLdr_Initialize(conf_.c_str(), &tcti_);
    if (rc != TSS2_RC_SUCCESS) {
      return Check(rc, ("TCTI \"" + conf_ + "\" initialization").c_str());
    }
    return Check(Esys_Initialize(&esys_, tcti_, nullptr), "Esys_Initialize");
  }

  bool Boot() override {
    if (control_port_ == 0) {
      return Fail("a host reached through a TCTI is already booted; the agent does not reset it");
    }
    // The reset drops every loaded object; forget their ESAPI records.
    for (ESYS_TR* object : {&ek_, &ak_}) {
      if (*object != ESYS_TR_NONE) {
        Esys_TR_Close(esys_, object);
        *object = ESYS_TR_NONE;
      }
    }
    if (!Control({"-i"})) {
      return false;
    }
    return Check(Esys_Startup(esys_, TPM2_SU_CLEAR), "TPM2_Startup") && ResetLockout();
  }

  bool DynamicLaunch(const Bytes& data) override {
    if (control_port_ == 0) {
      return Fail("a host reached through a TCTI is already booted; the agent does not relaunch it");
    }
    return Control({"-h", std::string(data.begin(), data.end())});
  }

  bool Extend(uint32_t pcr, const Bytes& digest) override {
    if (pcr > 23 || digest.size() != 32) {
      return Fail("bad extend request");
    }
    TPML_DIGEST_VALUES values = {};
    values.count = 1;
    values.digests[0].hashAlg = TPM2_ALG_SHA256;
    std::memcpy(values.digests[0].digest.sha256, digest.data(), 32);
    // The dynamic launch PCRs take extends from locality 2 only.
    bool drtm = pcr >= 17 && pcr <= 22;
    if (drtm && !SetLocality(2)) {
      return false;
    }
    bool ok = Check(Esys_PCR_Extend(esys_, ESYS_TR_PCR0 + pcr, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                    &values),
                    "TPM2_PCR_Extend");
    if (drtm && !SetLocality(0)) {
      return false;
    }
    return ok;
  }

  bool EkPublic(Bytes* out) override {
    if (!LoadEk()) {
      return false;
    }
    return Marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, ek_public_, out);
  }

  bool EkCertificatePem(std::string* out) override {
    if (!ReadEkCertificate(out)) {
      return false;
    }
    return !out->empty() || Fail("the TPM holds no EK certificate");
  }

  bool ReadEkCertificate(std::string* out) override {
    out->clear();
    bool present = false;
    if (!HandleExists(TPM2_CAP_HANDLES, kEkCertificateIndex, &present)) {
      return false;
    }
    if (!present) {
      return true;
    }
    ESYS_TR index = ESYS_TR_NONE;
    if (!Check(Esys_TR_FromTPMPublic(esys_, kEkCertificateIndex, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &index),
               "EK certificate index")) {
      return false;
    }
    bool ok = ReadNv(index, out);
    Esys_TR_Close(esys_, &index);
    return ok;
  }

  bool CreateAk(const Bytes& ak_template, const Bytes& outside_info, Bytes* out) override {
    TPM2B_PUBLIC in_public = {};
    TPM2B_DATA outside = {};
    if (!Unmarshal(Tss2_MU_TPM2B_PUBLIC_Unmarshal, ak_template, &in_public) ||
        !Unmarshal(Tss2_MU_TPM2B_DATA_Unmarshal, outside_info, &outside)) {
      return Fail("cannot unmarshal the AK template or outside info");
    }
    if (!LoadEk()) {
      return false;
    }
    TPM2B_SENSITIVE_CREATE sensitive = {};
    TPML_PCR_SELECTION creation_pcr = {};
    TPM2B_PRIVATE* private_raw = nullptr;
    TPM2B_PUBLIC* public_raw = nullptr;
    ESYS_TR session = ESYS_TR_NONE;
    if (!EkPolicySession(&session)) {
      return false;
    }
    bool ok = Check(Esys_Create(esys_, ek_, session, ESYS_TR_NONE, ESYS_TR_NONE, &sensitive, &in_public, &outside,
                                &creation_pcr, &private_raw, &public_raw, nullptr, nullptr, nullptr),
                    "TPM2_Create");
    Esys_FlushContext(esys_, session);
    if (!ok) {
      return false;
    }
    EsysPtr<TPM2B_PRIVATE> ak_private(private_raw);
    EsysPtr<TPM2B_PUBLIC> ak_public(public_raw);
    if (!EkPolicySession(&session)) {
      return false;
    }
    if (ak_ != ESYS_TR_NONE) {
      Esys_FlushContext(esys_, ak_);
      ak_ = ESYS_TR_NONE;
    }
    ok = Check(Esys_Load(esys_, ek_, session, ESYS_TR_NONE, ESYS_TR_NONE, ak_private.get(), ak_public.get(), &ak_),
               "TPM2_Load");
    Esys_FlushContext(esys_, session);
    return ok && Marshal(Tss2_MU_TPM2B_PUBLIC_Marshal, *ak_public, out);
  }

  bool ActivateCredential(const Bytes& credential_blob, const Bytes& encrypted_secret,
                          Bytes* out_cert_info) override {
    TPM2B_ID_OBJECT blob = {};
    TPM2B_ENCRYPTED_SECRET secret = {};
    if (!Unmarshal(Tss2_MU_TPM2B_ID_OBJECT_Unmarshal, credential_blob, &blob) ||
        !Unmarshal(Tss2_MU_TPM2B_ENCRYPTED_SECRET_Unmarshal, encrypted_secret, &secret)) {
      return Fail("cannot unmarshal the credential");
    }
    if (ak_ == ESYS_TR_NONE || !LoadEk()) {
      return Fail("no AK loaded");
    }
    ESYS_TR session = ESYS_TR_NONE;
    if (!EkPolicySession(&session)) {
      return false;
    }
    TPM2B_DIGEST* cert_info_raw = nullptr;
    bool ok = Check(Esys_ActivateCredential(esys_, ak_, ek_, ESYS_TR_PASSWORD, session, ESYS_TR_NONE, &blob, &secret,
                                            &cert_info_raw),
                    "TPM2_ActivateCredential");
    Esys_FlushContext(esys_, session);
    if (!ok) {
      std::string error = LastError();
      ResetLockout();
      return Fail(error);
    }
    EsysPtr<TPM2B_DIGEST> cert_info(cert_info_raw);
    return Marshal(Tss2_MU_TPM2B_DIGEST_Marshal, *cert_info, out_cert_info);
  }

  bool ReadPcrs(const Bytes& selection, std::vector<PcrReadResult>* out) override {
    TPML_PCR_SELECTION want = {};
    if (!Unmarshal(Tss2_MU_TPML_PCR_SELECTION_Unmarshal, selection, &want)) {
      return Fail("cannot unmarshal the PCR selection");
    }
    out->clear();
    // The TPM reads at most eight digests per call and says which it read;
    // ask again for what is left until nothing is.
    while (SelectionCount(want) > 0) {
      UINT32 counter = 0;
      TPML_PCR_SELECTION* got_raw = nullptr;
      TPML_DIGEST* values_raw = nullptr;
      if (!Check(Esys_PCR_Read(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &want, &counter, &got_raw,
                               &values_raw),
                 "TPM2_PCR_Read")) {
        return false;
      }
      EsysPtr<TPML_PCR_SELECTION> got(got_raw);
      EsysPtr<TPML_DIGEST> values(values_raw);
      if (values->count == 0) {
        return Fail("TPM2_PCR_Read returned no values");
      }
      PcrReadResult result;
      if (!Marshal(Tss2_MU_TPML_PCR_SELECTION_Marshal, *got, &result.selection_out) ||
          !Marshal(Tss2_MU_TPML_DIGEST_Marshal, *values, &result.values)) {
        return false;
      }
      out->push_back(std::move(result));
      SubtractSelection(*got, &want);
    }
    return true;
  }

  bool Quote(const Bytes& qualifying_data, const Bytes& sig_scheme, const Bytes& selection, Bytes* out_quoted,
             Bytes* out_signature) override {
    TPM2B_DATA nonce = {};
    TPMT_SIG_SCHEME scheme = {};
    TPML_PCR_SELECTION pcrs = {};
    if (!Unmarshal(Tss2_MU_TPM2B_DATA_Unmarshal, qualifying_data, &nonce) ||
        !Unmarshal(Tss2_MU_TPMT_SIG_SCHEME_Unmarshal, sig_scheme, &scheme) ||
        !Unmarshal(Tss2_MU_TPML_PCR_SELECTION_Unmarshal, selection, &pcrs)) {
      return Fail("cannot unmarshal the quote request");
    }
    if (ak_ == ESYS_TR_NONE) {
      return Fail("no AK loaded");
    }
    TPM2B_ATTEST* quoted_raw = nullptr;
    TPMT_SIGNATURE* signature_raw = nullptr;
    if (!Check(Esys_Quote(esys_, ak_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, &nonce, &scheme, &pcrs,
                          &quoted_raw, &signature_raw),
               "TPM2_Quote")) {
      return false;
    }
    EsysPtr<TPM2B_ATTEST> quoted(quoted_raw);
    EsysPtr<TPMT_SIGNATURE> signature(signature_raw);
    return Marshal(Tss2_MU_TPM2B_ATTEST_Marshal, *quoted, out_quoted) &&
           Marshal(Tss2_MU_TPMT_SIGNATURE_Marshal, *signature, out_signature);
  }

  bool SignWithAk(const Bytes& data, Bytes* out_signature) override {
    TPM2B_MAX_BUFFER buffer = {};
    if (ak_ == ESYS_TR_NONE || data.size() > sizeof(buffer.buffer)) {
      return Fail("no AK loaded, or data too long to hash");
    }
    buffer.size = static_cast<uint16_t>(data.size());
    std::memcpy(buffer.buffer, data.data(), data.size());
    TPM2B_DIGEST* digest_raw = nullptr;
    TPMT_TK_HASHCHECK* ticket_raw = nullptr;
    if (!Check(Esys_Hash(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &buffer, TPM2_ALG_SHA256, ESYS_TR_RH_OWNER,
                         &digest_raw, &ticket_raw),
               "TPM2_Hash")) {
      return false;
    }
    EsysPtr<TPM2B_DIGEST> digest(digest_raw);
    EsysPtr<TPMT_TK_HASHCHECK> ticket(ticket_raw);
    TPMT_SIG_SCHEME scheme = {};
    scheme.scheme = TPM2_ALG_RSASSA;
    scheme.details.rsassa.hashAlg = TPM2_ALG_SHA256;
    TPMT_SIGNATURE* signature_raw = nullptr;
    if (!Check(Esys_Sign(esys_, ak_, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, digest.get(), &scheme, ticket.get(),
                         &signature_raw),
               "TPM2_Sign")) {
      return false;
    }
    EsysPtr<TPMT_SIGNATURE> signature(signature_raw);
    return Marshal(Tss2_MU_TPMT_SIGNATURE_Marshal, *signature, out_signature);
  }

 private:
  bool Check(TSS2_RC rc, const char* what) {
    if (rc == TSS2_RC_SUCCESS) {
      return true;
    }
    return Fail(std::string(what) + " failed: " + Tss2_RC_Decode(rc));
  }

  template <typename T, typename MarshalFn>
  bool Marshal(MarshalFn fn, const T& value, Bytes* out) {
    return MarshalBytes(fn, value, out) || Fail("marshalling failed");
  }

  template <typename T, typename UnmarshalFn>
  bool Unmarshal(UnmarshalFn fn, const Bytes& bytes, T* out) {
    return UnmarshalBytes(fn, bytes, out);
  }

  // ResetLockout clears the dictionary attack counter: a credential that
  // fails its integrity check counts as a failed authorization, and tests
  // that provoke such failures on purpose must not lock the TPM for the
  // next case (the counter survives a reset).
  bool ResetLockout() {
    if (control_port_ == 0) {
      return true;  // a real host's lockout is its owner's business
    }
    return Check(Esys_DictionaryAttackLockReset(esys_, ESYS_TR_RH_LOCKOUT, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                                ESYS_TR_NONE),
                 "TPM2_DictionaryAttackLockReset");
  }

  bool SetLocality(uint8_t locality) {
    return Check(Tss2_Tcti_SetLocality(tcti_, locality), "setting the locality");
  }

  // Control runs swtpm_ioctl against the TPM's control channel.
  bool Control(const std::vector<std::string>& args) {
    std::vector<std::string> all = {"swtpm_ioctl", "--tcp", "127.0.0.1:" + std::to_string(control_port_)};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) {
      argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, "swtpm_ioctl", nullptr, nullptr, argv.data(), environ) != 0) {
      return Fail("cannot run swtpm_ioctl");
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      return Fail("swtpm_ioctl " + args[0] + " failed");
    }
    return true;
  }

  // EkPolicySession starts a policy session satisfied for the EK:
  // PolicySecret on the endorsement hierarchy (empty authorization).
  bool EkPolicySession(ESYS_TR* out) {
    TPMT_SYM_DEF symmetric = {};
    symmetric.algorithm = TPM2_ALG_NULL;
    if (!Check(Esys_StartAuthSession(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                                     nullptr, TPM2_SE_POLICY, &symmetric, TPM2_ALG_SHA256, out),
               "TPM2_StartAuthSession")) {
      return false;
    }
    if (!Check(Esys_PolicySecret(esys_, ESYS_TR_RH_ENDORSEMENT, *out, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                 nullptr, nullptr, nullptr, 0, nullptr, nullptr),
               "TPM2_PolicySecret")) {
      Esys_FlushContext(esys_, *out);
      return false;
    }
    return true;
  }

  // LoadEk takes the EK the host keeps at its persistent handle, else
  // creates it from the default template under the endorsement hierarchy.
  bool LoadEk() {
    if (ek_ != ESYS_TR_NONE) {
      return true;
    }
    bool persistent = false;
    if (!HandleExists(TPM2_CAP_HANDLES, kEkPersistentHandle, &persistent)) {
      return false;
    }
    if (persistent) {
      TPM2B_PUBLIC* public_raw = nullptr;
      if (!Check(Esys_TR_FromTPMPublic(esys_, kEkPersistentHandle, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &ek_),
                 "EK persistent handle") ||
          !Check(Esys_ReadPublic(esys_, ek_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &public_raw, nullptr, nullptr),
                 "TPM2_ReadPublic (EK)")) {
        return false;
      }
      ek_persistent_ = true;
      EsysPtr<TPM2B_PUBLIC> ek_public(public_raw);
      if (ek_public->publicArea.type != TPM2_ALG_RSA) {
        return Fail("persistent handle 0x81010001 holds no RSA key");
      }
      ek_public_ = *ek_public;
      return true;
    }
    TPM2B_SENSITIVE_CREATE sensitive = {};
    TPM2B_PUBLIC in_public = EkTemplate();
    TPM2B_DATA outside = {};
    TPML_PCR_SELECTION creation_pcr = {};
    TPM2B_PUBLIC* public_raw = nullptr;
    if (!Check(Esys_CreatePrimary(esys_, ESYS_TR_RH_ENDORSEMENT, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                  &sensitive, &in_public, &outside, &creation_pcr, &ek_, &public_raw, nullptr,
                                  nullptr, nullptr),
               "TPM2_CreatePrimary (EK)")) {
      return false;
    }
    ek_persistent_ = false;
    EsysPtr<TPM2B_PUBLIC> ek_public(public_raw);
    ek_public_ = *ek_public;
    return true;
  }

  // HandleExists asks the TPM whether |handle| (a persistent object or an
  // NV index, per |capability|) is defined.
  bool HandleExists(TPM2_CAP capability, TPM2_HANDLE handle, bool* out) {
    TPMS_CAPABILITY_DATA* data_raw = nullptr;
    if (!Check(Esys_GetCapability(esys_, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, capability, handle, 1, nullptr,
                                  &data_raw),
               "TPM2_GetCapability")) {
      return false;
    }
    EsysPtr<TPMS_CAPABILITY_DATA> data(data_raw);
    *out = data->data.handles.count > 0 && data->data.handles.handle[0] == handle;
    return true;
  }

  // ReadNv reads NV index |index| whole, in chunks a TPM accepts, and gives
  // it as PEM: the DER certificate it holds.
  bool ReadNv(ESYS_TR index, std::string* out) {
    TPM2B_NV_PUBLIC* nv_public_raw = nullptr;
    if (!Check(Esys_NV_ReadPublic(esys_, index, ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &nv_public_raw, nullptr),
               "TPM2_NV_ReadPublic")) {
      return false;
    }
    EsysPtr<TPM2B_NV_PUBLIC> nv_public(nv_public_raw);
    Bytes der;
    uint16_t size = nv_public->nvPublic.dataSize;
    for (uint16_t offset = 0; offset < size;) {
      uint16_t chunk = std::min<uint16_t>(kNvReadChunk, static_cast<uint16_t>(size - offset));
      TPM2B_MAX_NV_BUFFER* data_raw = nullptr;
      if (!Check(Esys_NV_Read(esys_, index, index, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE, chunk, offset,
                              &data_raw),
                 "TPM2_NV_Read")) {
        return false;
      }
      EsysPtr<TPM2B_MAX_NV_BUFFER> data(data_raw);
      der.insert(der.end(), data->buffer, data->buffer + data->size);
      offset = static_cast<uint16_t>(offset + chunk);
    }
    return DerCertificateToPem(der, out) || Fail("the EK certificate in NV is not DER X.509");
  }

  static uint32_t SelectionCount(const TPML_PCR_SELECTION& s) {
    uint32_t n = 0;
    for (uint32_t i = 0; i < s.count; ++i) {
      for (uint8_t j = 0; j < s.pcrSelections[i].sizeofSelect; ++j) {
        n += static_cast<uint32_t>(__builtin_popcount(s.pcrSelections[i].pcrSelect[j]));
      }
    }
    return n;
  }

  static void SubtractSelection(const TPML_PCR_SELECTION& got, TPML_PCR_SELECTION* want) {
    for (uint32_t i = 0; i < got.count; ++i) {
      for (uint32_t k = 0; k < want->count; ++k) {
        if (want->pcrSelections[k].hash != got.pcrSelections[i].hash) {
          continue;
        }
        for (uint8_t j = 0; j < got.pcrSelections[i].sizeofSelect && j < want->pcrSelections[k].sizeofSelect; ++j) {
          want->pcrSelections[k].pcrSelect[j] &= static_cast<uint8_t>(~got.pcrSelections[i].pcrSelect[j]);
        }
      }
    }
  }

  std::string conf_;
  uint16_t control_port_;
  TSS2_TCTI_CONTEXT* tcti_ = nullptr;
  ESYS_CONTEXT* esys_ = nullptr;
  ESYS_TR ek_ = ESYS_TR_NONE;
  bool ek_persistent_ = false;
  ESYS_TR ak_ = ESYS_TR_NONE;
  TPM2B_PUBLIC ek_public_ = {};
};

std::unique_ptr<HostTpm> Open(std::string conf, uint16_t control_port, std::string* error) {
  auto host = std::make_unique<TctiHost>(std::move(conf), control_port);
  if (!host->Open()) {
    *error = host->LastError();
    return nullptr;
  }
  return host;
}

}  // namespace

std::unique_ptr<HostTpm> OpenTctiHost(const std::string& conf, std::string* error) { return Open(conf, 0, error); }

std::unique_ptr<HostTpm> OpenSwtpmHost(uint16_t port, std::string* error) {
  return Open("swtpm:host=127.0.0.1,port=" + std::to_string(port), static_cast<uint16_t>(port + 1), error);
}

}  // namespace Witnessd::Agent
