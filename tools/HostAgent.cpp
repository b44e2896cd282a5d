#include "tools/HostAgent.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/Agent.h"
#include "tools/TpmBytes.h"

namespace Witnessd::Agent {
namespace {

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;
using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr std::chrono::seconds kFirstRetry{5};
constexpr std::chrono::seconds kLongestRetry{600};
// EK certificates are a few kilobytes.
constexpr size_t kMaxCertificateBytes = 64u << 10;

HostOutcome Failed(std::string message) {
  HostOutcome o;
  o.message = std::move(message);
  return o;
}

// ParseCertificate reads one X.509 certificate, PEM or DER.
X509Ptr ParseCertificate(const Bytes& bytes) {
  Bio bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())), BIO_free);
  X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
  if (cert == nullptr) {
    const unsigned char* p = bytes.data();
    cert.reset(d2i_X509(nullptr, &p, static_cast<long>(bytes.size())));
  }
  return cert;
}

bool ReadCertificateFile(const std::string& path, std::string* pem, std::string* error) {
  Bytes bytes;
  if (!ReadBoundedFile(path, kMaxCertificateBytes, &bytes, error)) {
    return false;
  }
  if (!CertificatePem(ParseCertificate(bytes).get(), pem)) {
    *error = path + " holds no X.509 certificate (PEM or DER)";
    return false;
  }
  return true;
}

bool Emit(const HostOutcome& outcome, const std::string& out_path, std::string* error) {
  std::string json = DocumentsJson(outcome.documents) + "\n";
  if (out_path.empty()) {
    std::fputs(json.c_str(), stdout);
    if (std::fflush(stdout) != 0) {
      *error = std::string("cannot write the documents: ") + std::strerror(errno);
      return false;
    }
    return true;
  }
  return WriteFileAtomically(out_path, json, error);
}

// WaitForStop waits |wait| for one of |signals| (blocked); true when one
// came.
bool WaitForStop(const sigset_t& signals, std::chrono::milliseconds wait) {
  auto deadline = std::chrono::steady_clock::now() + wait;
  for (;;) {
    auto left = std::max(std::chrono::nanoseconds(0), deadline - std::chrono::steady_clock::now());
    timespec timeout = {static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
    if (sigtimedwait(&signals, nullptr, &timeout) >= 0) {
      return true;
    }
    if (errno != EINTR) {
      return false;  // EAGAIN: the wait is over
    }
  }
}

}  // namespace

std::string DocumentsJson(const std::vector<std::pair<std::string, std::string>>& documents) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const auto& [type, token] : documents) {
    list.push_back({{"type", type}, {"token", token}});
  }
  return nlohmann::ordered_json({{"documents", list}}).dump();
}

bool ReadBoundedFile(const std::string& path, size_t max, Bytes* out, std::string* error) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  out->clear();
  uint8_t chunk[65536];
  for (;;) {
    ssize_t n = read(fd, chunk, sizeof(chunk));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      *error = "cannot read " + path + ": " + std::strerror(errno);
      close(fd);
      return false;
    }
    if (n == 0) {
      break;
    }
    if (out->size() + static_cast<size_t>(n) > max) {
      *error = path + " is larger than " + std::to_string(max) + " bytes";
      close(fd);
      return false;
    }
    out->insert(out->end(), chunk, chunk + n);
  }
  close(fd);
  return true;
}

bool WriteFileAtomically(const std::string& path, const std::string& content, std::string* error) {
  std::filesystem::path target(path);
  std::filesystem::path dir = target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  std::string temp = (dir / ("." + target.filename().string() + ".XXXXXX")).string();
  int fd = mkstemp(temp.data());  // mode 0600
  if (fd < 0) {
    *error = "cannot create a file in " + dir.string() + ": " + std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (size_t done = 0; ok && done < content.size();) {
    ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    ok = n > 0;
    done += ok ? static_cast<size_t>(n) : 0;
  }
  ok = ok && fsync(fd) == 0;
  ok = close(fd) == 0 && ok;
  if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    unlink(temp.c_str());
    return false;
  }
  // The rename itself survives a crash once the directory is synced.
  int dir_fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd >= 0) {
    fsync(dir_fd);
    close(dir_fd);
  }
  return true;
}

bool CertificateHoldsEk(const std::string& certificate_pem, const Bytes& ek_public, std::string* error) {
  X509Ptr cert = ParseCertificate(Bytes(certificate_pem.begin(), certificate_pem.end()));
  std::string ek_pem;
  if (cert == nullptr || !EkPublicPem(ek_public, &ek_pem)) {
    *error = "cannot read the EK certificate or the TPM's EK";
    return false;
  }
  Bio bio(BIO_new_mem_buf(ek_pem.data(), static_cast<int>(ek_pem.size())), BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr),
                                                          EVP_PKEY_free);
  if (key == nullptr || EVP_PKEY_eq(key.get(), X509_get0_pubkey(cert.get())) != 1) {
    *error = "the EK certificate's public key is not the TPM's EK";
    return false;
  }
  return true;
}

HostOutcome AttestHost(const HostAgentOptions& options) {
  std::string error;
  std::unique_ptr<HostTpm> tpm = OpenTctiHost(options.tcti, &error);
  if (tpm == nullptr) {
    return Failed("cannot open the TPM: " + error);
  }
  Bytes ek;
  if (!tpm->EkPublic(&ek)) {
    return Failed("cannot read the EK: " + tpm->LastError());
  }
  std::string certificate;
  std::string source = "in the TPM's NV";
  if (!options.ek_certificate_file.empty()) {
    source = options.ek_certificate_file;
    if (!ReadCertificateFile(options.ek_certificate_file, &certificate, &error)) {
      return Failed("EK certificate: " + error);
    }
  } else if (!tpm->ReadEkCertificate(&certificate)) {
    return Failed("cannot read the EK certificate: " + tpm->LastError());
  }
  if (!certificate.empty() && !CertificateHoldsEk(certificate, ek, &error)) {
    return Failed("EK certificate " + source + ": " + error);
  }
  AttestOptions attest;
  attest.document_types = options.document_types;
  attest.measure_boot = false;
  attest.ek_certificate_pem = certificate;
  attest.event_log.emplace();
  if (!ReadBoundedFile(options.event_log, kMaxEventLogBytes, &*attest.event_log, &error)) {
    return Failed("event log: " + error);
  }
  if (attest.event_log->empty()) {
    return Failed("event log: " + options.event_log + " is empty");
  }
  AttestResult r = Attest(tpm.get(), options.host, options.port, attest);
  HostOutcome o;
  if (r.ok) {
    o.status = kHostAttested;
    o.documents = std::move(r.documents);
  } else if (!r.error_type.empty()) {
    o.status = kHostRefused;
    o.message = "the daemon refused the attestation: " + r.error_type + " " + r.error_id + ": " + r.error_text;
  } else {
    o.message = r.failure.empty() ? "the daemon stopped answering" : r.failure;
  }
  return o;
}

RetryDelay::RetryDelay(std::chrono::seconds first, std::chrono::seconds cap)
    : first_(std::min(first, cap)), cap_(cap), ceiling_(first_), random_(std::random_device()()) {}

std::chrono::milliseconds RetryDelay::Next() {
  std::uniform_int_distribution<int64_t> draw(0, ceiling_.count());
  std::chrono::milliseconds wait(draw(random_));
  ceiling_ = std::min(cap_, ceiling_ * 2);
  return wait;
}

int RunHostAgent(const HostAgentOptions& options, std::chrono::seconds interval, const std::string& out_path) {
  // A peer that went away is a failed attempt, reported as such.
  std::signal(SIGPIPE, SIG_IGN);
  std::string error;
  if (interval.count() <= 0) {
    HostOutcome o = AttestHost(options);
    if (o.status != kHostAttested) {
      std::fprintf(stderr, "witnessd-agent: %s\n", o.message.c_str());
      return o.status;
    }
    if (!Emit(o, out_path, &error)) {
      std::fprintf(stderr, "witnessd-agent: %s\n", error.c_str());
      return kHostFailed;
    }
    return kHostAttested;
  }
  // The stop signals wait, blocked, for the moments between attestations,
  // so one is never cut off halfway through writing its documents.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  RetryDelay retry(kFirstRetry, std::min(interval, std::chrono::seconds(kLongestRetry)));
  for (;;) {
    HostOutcome o = AttestHost(options);
    std::chrono::milliseconds wait = interval;
    if (o.status == kHostAttested && Emit(o, out_path, &error)) {
      retry.Reset();
    } else {
      wait = retry.Next();
      std::fprintf(stderr, "witnessd-agent: %s; next attempt in %.1f s\n",
                   o.status == kHostAttested ? error.c_str() : o.message.c_str(), wait.count() / 1000.0);
    }
    if (WaitForStop(stop, wait)) {
      return kHostAttested;
    }
  }
}

}  // namespace Witnessd::Agent
