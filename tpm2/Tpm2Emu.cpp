#include "tpm2/Tpm2Emu.h"

#include <fcntl.h>
#include <unistd.h>

#include <libtpms/tpm_error.h>
#include <libtpms/tpm_library.h>
#include <libtpms/tpm_memory.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Log.h"

namespace Witnessd::Tpm2 {
namespace {

// A leaf lock: taken while a session holds its own lock and never held while
// taking another, so it ranks above every other daemon lock.
constexpr uint32_t kEmuLockRank = 0xFFFF0000;

constexpr uint16_t kTpmStNoSessions = 0x8001;
constexpr uint32_t kTpmCcStartup = 0x00000144;
constexpr uint32_t kTpmCcFlushContext = 0x00000165;
constexpr uint32_t kTpmCcLoadExternal = 0x00000167;
constexpr uint32_t kTpmCcMakeCredential = 0x00000168;
constexpr uint16_t kTpmSuClear = 0x0000;
constexpr uint32_t kTpmRhNull = 0x40000007;
constexpr uint32_t kTpmRcInitialize = 0x00000100;
constexpr size_t kResponseHeaderBytes = 10;

#define TPM2EMU_TRACE(...) TraceLine(__FILE__, __LINE__, __func__, __VA_ARGS__)

void TraceLine(const char* file, unsigned line, const char* function, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

void TraceLine(const char* file, unsigned line, const char* function, const char* fmt, ...) {
  if (!Log_IsEnabled(kLogTrivia)) {
    return;
  }
  char text[512];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  Log_Level(kLogTrivia, "[TPM2EMU] Trace: %s:%u (%s): %s\n", file, line, function, text);
}

// Command writer: big-endian fields, commandSize patched by Finish().
class CommandWriter {
 public:
  CommandWriter(uint16_t tag, uint32_t code) {
    PutU16(tag);
    PutU32(0);
    PutU32(code);
  }
  void PutU16(uint16_t v) {
    bytes_.push_back(static_cast<uint8_t>(v >> 8));
    bytes_.push_back(static_cast<uint8_t>(v));
  }
  void PutU32(uint32_t v) {
    PutU16(static_cast<uint16_t>(v >> 16));
    PutU16(static_cast<uint16_t>(v));
  }
  void PutBytes(const uint8_t* data, size_t len) { bytes_.insert(bytes_.end(), data, data + len); }
  void PutSized(const std::vector<uint8_t>& data) {
    PutU16(static_cast<uint16_t>(data.size()));
    PutBytes(data.data(), data.size());
  }
  std::vector<uint8_t> Finish() {
    uint32_t size = static_cast<uint32_t>(bytes_.size());
    for (int i = 0; i < 4; ++i) {
      bytes_[2 + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
    }
    return bytes_;
  }

 private:
  std::vector<uint8_t> bytes_;
};

uint32_t GetU32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

uint16_t GetU16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

// Reads one TPM2B (size and bytes, size included in the copy) from |params|
// at |*offset|; false if it runs past the end.
bool TakeSized(const std::vector<uint8_t>& params, size_t* offset, std::vector<uint8_t>* out) {
  if (params.size() - *offset < 2) {
    return false;
  }
  size_t size = GetU16(params.data() + *offset);
  if (params.size() - *offset - 2 < size) {
    return false;
  }
  out->assign(params.begin() + *offset, params.begin() + *offset + 2 + size);
  *offset += 2 + size;
  return true;
}

// Non-volatile state lives in memory only: every process start manufactures
// a fresh TPM, which is all credential making needs.
std::mutex g_nv_mutex;
std::map<std::string, std::vector<uint8_t>> g_nv;

TPM_RESULT NvInit() { return TPM_SUCCESS; }

TPM_RESULT NvLoad(unsigned char** data, uint32_t* length, uint32_t tpm_number, const char* name) {
  std::lock_guard<std::mutex> guard(g_nv_mutex);
  auto it = g_nv.find(name);
  if (it == g_nv.end()) {
    return TPM_RETRY;  // no state yet: libtpms manufactures the TPM
  }
  if (TPM_Malloc(data, static_cast<uint32_t>(it->second.size())) != TPM_SUCCESS) {
    return TPM_FAIL;
  }
  std::memcpy(*data, it->second.data(), it->second.size());
  *length = static_cast<uint32_t>(it->second.size());
  return TPM_SUCCESS;
}

TPM_RESULT NvStore(const unsigned char* data, uint32_t length, uint32_t tpm_number, const char* name) {
  std::lock_guard<std::mutex> guard(g_nv_mutex);
  g_nv[name].assign(data, data + length);
  return TPM_SUCCESS;
}

TPM_RESULT NvDelete(uint32_t tpm_number, const char* name, TPM_BOOL must_exist) {
  std::lock_guard<std::mutex> guard(g_nv_mutex);
  if (g_nv.erase(name) == 0 && must_exist) {
    return TPM_FAIL;
  }
  return TPM_SUCCESS;
}

TPM_RESULT IoInit() { return TPM_SUCCESS; }

TPM_RESULT IoGetLocality(TPM_MODIFIER_INDICATOR* locality, uint32_t tpm_number) {
  *locality = 0;
  return TPM_SUCCESS;
}

TPM_RESULT IoGetPhysicalPresence(TPM_BOOL* present, uint32_t tpm_number) {
  *present = FALSE;
  return TPM_SUCCESS;
}

}  // namespace

Tpm2Emu& Tpm2Emu::Get() {
  static Tpm2Emu* emu = new Tpm2Emu();  // lives until exit; libtpms state is global anyway
  return *emu;
}

Tpm2Emu::Tpm2Emu() : lock_(MXUser_CreateExclLock("tpm2emu", kEmuLockRank)) {
  if (lock_ == nullptr) {
    Panic("Tpm2Emu: cannot create lock\n");
  }
  MXUser::ExclGuard guard(lock_);
  started_ = Start();
  if (!started_) {
    Log_Level(kLogError, "Failed to start the software TPM\n");
  }
}

bool Tpm2Emu::Start() {
  // libtpms writes its debug text to a file descriptor; a pipe drained after
  // each command turns it into log lines. The write end never blocks: a full
  // pipe drops text rather than stalling a command.
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    trace_read_fd_ = fds[0];
    TPMLIB_SetDebugFD(fds[1]);
    TPMLIB_SetDebugLevel(Log_IsEnabled(kLogTrivia) ? 1 : 0);
  }

  static libtpms_callbacks callbacks = {};
  callbacks.sizeOfStruct = sizeof(callbacks);
  callbacks.tpm_nvram_init = NvInit;
  callbacks.tpm_nvram_loaddata = NvLoad;
  callbacks.tpm_nvram_storedata = NvStore;
  callbacks.tpm_nvram_deletename = NvDelete;
  callbacks.tpm_io_init = IoInit;
  callbacks.tpm_io_getlocality = IoGetLocality;
  callbacks.tpm_io_getphysicalpresence = IoGetPhysicalPresence;

  TPM_RESULT rc = TPMLIB_ChooseTPMVersion(TPMLIB_TPM_VERSION_2);
  if (rc == TPM_SUCCESS) {
    rc = TPMLIB_RegisterCallbacks(&callbacks);
  }
  if (rc == TPM_SUCCESS) {
    rc = TPMLIB_MainInit();
  }
  DrainTrace(__FILE__, __LINE__, __func__);
  if (rc != TPM_SUCCESS) {
    Log_Level(kLogError, "TPMLIB initialization failed: 0x%x\n", rc);
    return false;
  }
  started_ = true;
  CommandWriter cmd(kTpmStNoSessions, kTpmCcStartup);
  cmd.PutU16(kTpmSuClear);
  std::vector<uint8_t> params;
  uint32_t startup_rc = Execute(cmd.Finish(), 0, nullptr, &params);
  if (startup_rc != kTpmRcSuccess && startup_rc != kTpmRcInitialize) {
    Log_Level(kLogError, "TPM2_Startup failed: 0x%x\n", startup_rc);
    return false;
  }
  TPM2EMU_TRACE("started, libtpms version 0x%x", TPMLIB_GetVersion());
  return true;
}

void Tpm2Emu::DrainTrace(const char* file, unsigned line, const char* function) {
  if (trace_read_fd_ < 0) {
    return;
  }
  std::string text;
  char buf[1024];
  ssize_t n;
  while ((n = read(trace_read_fd_, buf, sizeof(buf))) > 0) {
    text.append(buf, static_cast<size_t>(n));
  }
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    if (end > start) {
      std::string piece = text.substr(start, end - start);
      TraceLine(file, line, function, "%s", piece.c_str());
    }
    start = end + 1;
  }
}

uint32_t Tpm2Emu::Execute(const std::vector<uint8_t>& command, size_t num_response_handles,
                          std::vector<uint32_t>* out_handles, std::vector<uint8_t>* out_params) {
  if (!started_) {
    return kTpm2EmuFailure;
  }
  unsigned char* response = nullptr;
  uint32_t response_len = 0;
  uint32_t response_buf_size = 0;
  std::vector<uint8_t> in(command);  // libtpms takes a non-const buffer
  TPM_RESULT rc = TPMLIB_Process(&response, &response_len, &response_buf_size, in.data(),
                                 static_cast<uint32_t>(in.size()));
  DrainTrace(__FILE__, __LINE__, __func__);
  std::unique_ptr<unsigned char, void (*)(unsigned char*)> owned(response, TPM_Free);
  if (rc != TPM_SUCCESS || response == nullptr || response_len < kResponseHeaderBytes ||
      GetU32(response + 2) != response_len) {
    TPM2EMU_TRACE("TPMLIB_Process failed: 0x%x", rc);
    return kTpm2EmuFailure;
  }
  uint32_t tpm_rc = GetU32(response + 6);
  TPM2EMU_TRACE("command 0x%x: rc 0x%x", GetU32(command.data() + 6), tpm_rc);
  if (tpm_rc != kTpmRcSuccess) {
    return tpm_rc;
  }
  size_t offset = kResponseHeaderBytes;
  if (response_len - offset < 4 * num_response_handles) {
    return kTpm2EmuFailure;
  }
  for (size_t i = 0; i < num_response_handles; ++i) {
    out_handles->push_back(GetU32(response + offset));
    offset += 4;
  }
  out_params->assign(response + offset, response + response_len);
  return kTpmRcSuccess;
}

uint32_t Tpm2Emu::LoadExternalPublic(const uint8_t* public_bytes, uint32_t public_len,
                                     uint32_t* out_handle) {
  // TPM2_LoadExternal: no handles; inPrivate (empty TPM2B_SENSITIVE),
  // inPublic (TPM2B_PUBLIC), hierarchy.
  CommandWriter cmd(kTpmStNoSessions, kTpmCcLoadExternal);
  cmd.PutU16(0);
  cmd.PutBytes(public_bytes, public_len);
  cmd.PutU32(kTpmRhNull);
  std::vector<uint32_t> handles;
  std::vector<uint8_t> params;  // name (TPM2B_NAME), not needed
  uint32_t rc = Execute(cmd.Finish(), 1, &handles, &params);
  if (rc == kTpmRcSuccess) {
    *out_handle = handles[0];
  }
  return rc;
}

uint32_t Tpm2Emu::MakeCredential(uint32_t handle, const std::vector<uint8_t>& credential,
                                 const std::vector<uint8_t>& object_name, std::vector<uint8_t>* out_blob,
                                 std::vector<uint8_t>* out_secret) {
  // TPM2_MakeCredential: handle (no authorization); credential (TPM2B_DIGEST),
  // objectName (TPM2B_NAME). Response: credentialBlob (TPM2B_ID_OBJECT),
  // secret (TPM2B_ENCRYPTED_SECRET).
  CommandWriter cmd(kTpmStNoSessions, kTpmCcMakeCredential);
  cmd.PutU32(handle);
  cmd.PutSized(credential);
  cmd.PutSized(object_name);
  std::vector<uint8_t> params;
  uint32_t rc = Execute(cmd.Finish(), 0, nullptr, &params);
  if (rc != kTpmRcSuccess) {
    return rc;
  }
  size_t offset = 0;
  if (!TakeSized(params, &offset, out_blob) || !TakeSized(params, &offset, out_secret)) {
    return kTpm2EmuFailure;
  }
  return kTpmRcSuccess;
}

uint32_t Tpm2Emu::FlushContext(uint32_t handle) {
  CommandWriter cmd(kTpmStNoSessions, kTpmCcFlushContext);
  cmd.PutU32(handle);
  std::vector<uint8_t> params;
  return Execute(cmd.Finish(), 0, nullptr, &params);
}

}  // namespace Witnessd::Tpm2
