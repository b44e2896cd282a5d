// Tpm2Emu: the process's one software TPM 2.0 (libtpms linked in process), used
// to make credentials for remote TPMs. libtpms has a single global state with a
// few object slots, so every command sequence runs under Tpm2Emu::Lock().
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/MXUser.h"

namespace Witnessd::Tpm2 {

inline constexpr uint32_t kTpmRcSuccess = 0;
// Returned by the wrappers below when the emulator could not be started or
// its response could not be read; not a code the TPM itself gives.
inline constexpr uint32_t kTpm2EmuFailure = 0xFFFFFFFF;

class Tpm2Emu {
 public:
  // Get returns the process's emulator, starting it on first use. Starting
  // failures are logged once and make every command return kTpm2EmuFailure.
  static Tpm2Emu& Get();

  // Lock serializes all use of the emulator; hold it around each sequence of
  // the commands below (they do not take it themselves).
  MXUserExclLock* Lock() const { return lock_; }

  // LoadExternalPublic loads a marshalled TPM2B_PUBLIC without a sensitive
  // part into the null hierarchy. On success it returns 0 and the transient
  // handle; otherwise the TPM response code.
  uint32_t LoadExternalPublic(const uint8_t* public_bytes, uint32_t public_len, uint32_t* out_handle);

  // MakeCredential runs TPM2_MakeCredential with the loaded EK |handle|, the
  // credential (at most 64 bytes) and the object's Name. On success it returns
  // 0 and the marshalled TPM2B_ID_OBJECT and TPM2B_ENCRYPTED_SECRET.
  uint32_t MakeCredential(uint32_t handle, const std::vector<uint8_t>& credential,
                          const std::vector<uint8_t>& object_name, std::vector<uint8_t>* out_blob,
                          std::vector<uint8_t>* out_secret);

  // FlushContext removes a loaded object; returns the TPM response code.
  uint32_t FlushContext(uint32_t handle);

 private:
  Tpm2Emu();
  bool Start();
  // Execute sends one command and returns the response code, with the
  // response parameters (after the header and any handles) in |out_params|.
  uint32_t Execute(const std::vector<uint8_t>& command, size_t num_response_handles,
                   std::vector<uint32_t>* out_handles, std::vector<uint8_t>* out_params);
  void DrainTrace(const char* file, unsigned line, const char* function);

  MXUserExclLock* lock_;
  bool started_ = false;
  int trace_read_fd_ = -1;
};

}  // namespace Witnessd::Tpm2
