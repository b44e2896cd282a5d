// witnessd-agent: attests a host against a running witnessd.
//
//   witnessd-agent [--host 127.0.0.1] [--port 7889] (--swtpm-port P | --software)
//                  [--certificate] [--txt] [--no-secure-boot] [--incomplete]
//                  [--document KMS_AUTH_JWT|REPORTING_JWT]... [--print-ek]
//                  [--count N] [--concurrency C] [--per-host K]
//                  [--ek-ca-key F --ek-ca-cert F] [--max-turns T] [--withhold-quote]
//   witnessd-agent --swtpm-port P --ek-only
//   witnessd-agent [--txt] [--no-secure-boot] --imgdb-flags
//   witnessd-agent [--txt] [--no-secure-boot] --event-log-bytes
//
// --ek-only prints the TPM's EK public key (PEM) without attesting;
// --imgdb-flags prints the image database generator's flags for a base
// image that trusts this agent's synthetic boot; --event-log-bytes the size
// of the event log it sends. The port defaults to
// WITNESSD_PORT when set.
//
// With --swtpm-port the host's TPM is the swtpm listening there (control
// channel on P + 1). With --software each thread uses one software host (its
// own EK; the AK key is made once); --count and --concurrency then run that
// many attestations on that many threads and print throughput and per-turn
// latencies. Each failure is counted under its reason (the error id, or
// what went wrong) and every reason is printed.
//
// Load options: --per-host K gives each software host K attestations, one
// after another, before its thread takes a new host (otherwise a thread
// keeps one host); --ek-ca-key/--ek-ca-cert issue every software host an EK
// certificate from that CA (PEM files); --max-turns T stops each attestation
// after T turns and counts it as held, leaving its session open in the
// daemon; --withhold-quote answers quote requests with the event log alone.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/Agent.h"
#include "tools/DaemonAddress.h"

namespace {

using namespace Witnessd::Agent;

int Usage() {
  std::fprintf(stderr,
               "usage: witnessd-agent [--host H] [--port P] (--swtpm-port P | --software) [--certificate] [--txt]\n"
               "                      [--no-secure-boot] [--incomplete] [--document TYPE]... [--print-ek]\n"
               "                      [--count N] [--concurrency C] [--per-host K]\n"
               "                      [--ek-ca-key F --ek-ca-cert F] [--max-turns T] [--withhold-quote]\n"
               "       witnessd-agent --swtpm-port P --ek-only\n"
               "       witnessd-agent [--txt] [--no-secure-boot] (--imgdb-flags | --event-log-bytes)\n"
               "\n%s",
               Witnessd::Tools::kDaemonAddressHelp);
  return 2;
}

void PrintResult(const AttestResult& r) {
  if (r.ok) {
    for (const auto& [type, token] : r.documents) {
      std::printf("%s %s\n", type.c_str(), token.c_str());
    }
  } else if (!r.error_id.empty() || !r.error_type.empty()) {
    std::printf("error %s %s (turn %d)\n", r.error_type.c_str(), r.error_id.c_str(), r.turns);
  } else {
    std::printf("failure %s (turn %d)\n", r.failure.c_str(), r.turns);
  }
}

// Reason names why an attestation failed, for counting failures by cause.
std::string Reason(const AttestResult& r) {
  if (!r.error_id.empty() || !r.error_type.empty()) {
    return r.error_type + " " + r.error_id;
  }
  return r.failure.empty() ? "stopped without documents" : r.failure;
}

bool ReadFile(const char* path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  *out = text.str();
  return in.good() || in.eof();
}

double Percentile(std::vector<double> v, double p) {
  if (v.empty()) {
    return 0;
  }
  std::sort(v.begin(), v.end());
  size_t index = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
  return v[std::min(index, v.size() - 1)];
}

}  // namespace

int main(int argc, char** argv) {
  Witnessd::Tools::DaemonAddress daemon;
  if (std::string error; !Witnessd::Tools::DaemonAddressFromEnvironment(&daemon, &error)) {
    std::fprintf(stderr, "witnessd-agent: %s\n", error.c_str());
    return 2;
  }
  std::string host = daemon.host;
  uint16_t port = daemon.port;
  int swtpm_port = -1;
  bool software = false;
  bool print_ek = false;
  bool ek_only = false;
  bool imgdb_flags = false;
  bool event_log_bytes = false;
  int count = 1;
  int concurrency = 1;
  int per_host = 0;
  const char* ek_ca_key = nullptr;
  const char* ek_ca_cert = nullptr;
  AttestOptions options;
  options.document_types.clear();
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (a == "--host" && (v = next())) {
      host = v;
    } else if (a == "--port" && (v = next())) {
      if (!Witnessd::Tools::ParsePort(v, &port)) {
        std::fprintf(stderr, "witnessd-agent: --port: not a port: %s\n", v);
        return 2;
      }
    } else if (a == "--swtpm-port" && (v = next())) {
      swtpm_port = std::atoi(v);
    } else if (a == "--software") {
      software = true;
    } else if (a == "--certificate") {
      options.use_certificate = true;
    } else if (a == "--txt") {
      options.boot.txt = true;
    } else if (a == "--no-secure-boot") {
      options.boot.secure_boot = false;
    } else if (a == "--incomplete") {
      options.log_complete = false;
    } else if (a == "--document" && (v = next())) {
      options.document_types.push_back(v);
    } else if (a == "--print-ek") {
      print_ek = true;
    } else if (a == "--ek-only") {
      ek_only = true;
    } else if (a == "--imgdb-flags") {
      imgdb_flags = true;
    } else if (a == "--event-log-bytes") {
      event_log_bytes = true;
    } else if (a == "--count" && (v = next())) {
      count = std::max(1, std::atoi(v));
    } else if (a == "--concurrency" && (v = next())) {
      concurrency = std::max(1, std::atoi(v));
    } else if (a == "--per-host" && (v = next())) {
      per_host = std::max(1, std::atoi(v));
    } else if (a == "--ek-ca-key" && (v = next())) {
      ek_ca_key = v;
    } else if (a == "--ek-ca-cert" && (v = next())) {
      ek_ca_cert = v;
    } else if (a == "--max-turns" && (v = next())) {
      options.max_turns = std::max(1, std::atoi(v));
    } else if (a == "--withhold-quote") {
      options.withhold_quote = true;
    } else {
      return Usage();
    }
  }
  if (imgdb_flags) {
    std::printf("%s\n", ImageDatabaseFlags(options.boot).c_str());
    return 0;
  }
  if (event_log_bytes) {
    std::printf("%zu\n", WriteEventLog(HypervisorBootEvents(options.boot)).size());
    return 0;
  }
  if (software == (swtpm_port >= 0) || (ek_only && software)) {
    return Usage();
  }
  if (options.document_types.empty()) {
    options.document_types.push_back("KMS_AUTH_JWT");
  }

  if (!software) {
    std::string error;
    std::unique_ptr<HostTpm> tpm = OpenSwtpmHost(static_cast<uint16_t>(swtpm_port), &error);
    if (tpm == nullptr) {
      std::fprintf(stderr, "cannot open the TPM: %s\n", error.c_str());
      return 1;
    }
    if (ek_only) {
      Bytes ek;
      std::string pem;
      if (!tpm->Boot() || !tpm->EkPublic(&ek) || !EkPublicPem(ek, &pem)) {
        std::fprintf(stderr, "cannot read the EK: %s\n", tpm->LastError().c_str());
        return 1;
      }
      std::printf("%s", pem.c_str());
      return 0;
    }
    AttestResult r = Attest(tpm.get(), host, port, options);
    if (print_ek) {
      std::printf("%s", r.ek_public_pem.c_str());
    }
    PrintResult(r);
    return r.ok ? 0 : 1;
  }

  // Software hosts: |count| attestations over |concurrency| threads.
  std::optional<EkIssuer> issuer;
  if ((ek_ca_key == nullptr) != (ek_ca_cert == nullptr)) {
    return Usage();
  }
  if (ek_ca_key != nullptr) {
    issuer.emplace();
    if (!ReadFile(ek_ca_key, &issuer->key_pem) || !ReadFile(ek_ca_cert, &issuer->certificate_pem)) {
      std::fprintf(stderr, "cannot read the EK CA's key or certificate\n");
      return 1;
    }
  }
  std::atomic<int> next_index{0};
  int succeeded = 0;
  int held = 0;
  std::map<std::string, int> failures;  // by reason
  std::mutex mutex;
  std::vector<std::vector<double>> turn_times(4);
  std::vector<double> all_turns;
  auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < concurrency; ++t) {
    threads.emplace_back([&]() {
      // A thread runs one attestation at a time on its host, so a host holds
      // one session at a time unless attestations are held open.
      std::unique_ptr<HostTpm> tpm;
      for (int done = 0;; ++done) {
        int index = next_index++;
        if (index >= count) {
          return;
        }
        if (tpm == nullptr || (per_host > 0 && done % per_host == 0)) {
          tpm = MakeSoftwareHost(/*reuse_ak=*/true, issuer ? &*issuer : nullptr);
        }
        AttestResult r;
        if (tpm == nullptr) {
          r.failure = "the EK CA's key or certificate does not parse";
        } else {
          r = Attest(tpm.get(), host, port, options);
        }
        bool stopped = options.max_turns > 0 && r.turns == options.max_turns && r.error_type.empty() &&
                       r.error_id.empty() && r.failure.empty();
        std::lock_guard<std::mutex> guard(mutex);
        if (r.ok || stopped) {
          r.ok ? ++succeeded : ++held;
          for (size_t i = 0; i < r.turn_seconds.size(); ++i) {
            all_turns.push_back(r.turn_seconds[i]);
            if (i < turn_times.size()) {
              turn_times[i].push_back(r.turn_seconds[i]);
            }
          }
        } else {
          ++failures[Reason(r)];
        }
        if (count == 1) {
          if (print_ek) {
            std::printf("%s", r.ek_public_pem.c_str());
          }
          PrintResult(r);
        }
      }
    });
  }
  for (std::thread& t : threads) {
    t.join();
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  int failed = count - succeeded - held;
  if (count > 1) {
    std::printf("attestations %d ok %d held %d failed %d seconds %.3f per-second %.1f\n", count, succeeded, held,
                failed, seconds, succeeded / seconds);
    for (const auto& [reason, n] : failures) {
      std::printf("failed %d: %s\n", n, reason.c_str());
    }
    std::printf("turns p50 %.3f ms p99 %.3f ms\n", 1000 * Percentile(all_turns, 0.5),
                1000 * Percentile(all_turns, 0.99));
    for (size_t i = 0; i < turn_times.size(); ++i) {
      std::printf("turn %zu p50 %.3f ms p99 %.3f ms\n", i + 1, 1000 * Percentile(turn_times[i], 0.5),
                  1000 * Percentile(turn_times[i], 0.99));
    }
  }
  return failed == 0 ? 0 : 1;
}
