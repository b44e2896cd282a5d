// witnessd-agent: attests a host against a running witnessd.
//
//   witnessd-agent --tcti CONF [--event-log FILE] [--ek-certificate FILE]
//                  [--document TYPE]... [--out FILE] [--interval SECONDS]
//                  [--host H] [--port P]
//
// attests the host it runs on: its TPM through the tpm2-tss TCTI CONF
// ("device:/dev/tpmrm0", "tabrmd", "swtpm:host=127.0.0.1,port=2321"), the
// event log its firmware and kernel wrote (default
// /sys/kernel/security/tpm0/binary_bios_measurements, read whole before the
// TPM quotes, at most 16 MiB). The EK is the key at persistent handle
// 0x81010001, else the default RSA EK; its certificate comes from
// --ek-certificate (PEM or DER), else from NV index 0x01C00002, and must
// hold that key; with no certificate at all the EK public key is sent. The
// documents are printed as {"documents":[{"type":...,"token":...}]}, or
// written to --out FILE (mode 0600, replaced atomically). Exit status 0
// with documents; 1 when the daemon refuses (its error id and text on
// standard error); 2 when the TPM, a file or the connection fails, or on a
// usage error. --interval attests every SECONDS until SIGTERM or SIGINT
// (exit 0), retrying failures after a jittered back-off from 5 s, doubling
// up to the interval or 10 minutes, each failure logged to standard error.
//
// Test and load modes, on a TPM the agent boots and measures itself:
//
//   witnessd-agent [--host 127.0.0.1] [--port 7889] (--swtpm-port P | --software)
//                  [--certificate] [--txt] [--no-secure-boot] [--incomplete]
//                  [--document KMS_AUTH_JWT|REPORTING_JWT]... [--print-ek]
//                  [--count N] [--concurrency C] [--per-host K]
//                  [--ek-ca-key F --ek-ca-cert F] [--max-turns T] [--withhold-quote]
//   witnessd-agent --swtpm-port P --ek-only
//   witnessd-agent --swtpm-port P [--txt] [--no-secure-boot] --measure-boot FILE
//   witnessd-agent [--txt] [--no-secure-boot] --imgdb-flags
//   witnessd-agent [--txt] [--no-secure-boot] --event-log-bytes
//
// --ek-only prints the TPM's EK public key (PEM) without attesting;
// --measure-boot power-cycles the swtpm, measures the synthetic boot into it
// and writes its event log to FILE, so that --tcti then attests it as a
// booted host; --imgdb-flags prints the image database generator's flags
// for a base image that trusts this agent's synthetic boot;
// --event-log-bytes the size of the event log it sends. The port defaults
// to WITNESSD_PORT when set.
//
// With --swtpm-port the host's TPM is the swtpm listening there (TCTI
// swtpm:host=127.0.0.1,port=P, control channel on P + 1); each attestation
// power-cycles it, measures the synthetic boot and sends that boot's log.
// With --software each thread uses one software host (its
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
#include <cerrno>
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
#include "tools/HostAgent.h"

namespace {

using namespace Witnessd::Agent;

int Usage() {
  std::fprintf(stderr,
               "usage: witnessd-agent --tcti CONF [--event-log FILE] [--ek-certificate FILE] [--document TYPE]...\n"
               "                      [--out FILE] [--interval SECONDS] [--host H] [--port P]\n"
               "       witnessd-agent [--host H] [--port P] (--swtpm-port P | --software) [--certificate] [--txt]\n"
               "                      [--no-secure-boot] [--incomplete] [--document TYPE]... [--print-ek]\n"
               "                      [--count N] [--concurrency C] [--per-host K]\n"
               "                      [--ek-ca-key F --ek-ca-cert F] [--max-turns T] [--withhold-quote]\n"
               "       witnessd-agent --swtpm-port P --ek-only\n"
               "       witnessd-agent --swtpm-port P [--txt] [--no-secure-boot] --measure-boot FILE\n"
               "       witnessd-agent [--txt] [--no-secure-boot] (--imgdb-flags | --event-log-bytes)\n"
               "\n"
               "--tcti attests this host: its TPM through the TCTI (device:/dev/tpmrm0, tabrmd, swtpm:host=H,port=P),\n"
               "its event log (default %s). Exit status: 0 attested,\n"
               "1 refused by the daemon, 2 TPM, file or connection failure.\n"
               "%s",
               kDefaultEventLog, Witnessd::Tools::kDaemonAddressHelp);
  return 2;
}

// ParseSeconds reads a positive number of seconds.
bool ParseSeconds(const char* text, long* out) {
  errno = 0;
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || v < 1) {
    return false;
  }
  *out = v;
  return true;
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
  // The real host's options, and whether a test-only option was given.
  HostAgentOptions host_agent;
  const char* out_path = nullptr;
  long interval = 0;
  bool host_only = false;
  bool test_only = false;
  const char* measure_boot = nullptr;
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
    } else if (a == "--tcti" && (v = next())) {
      host_agent.tcti = v;
    } else if (a == "--event-log" && (v = next())) {
      host_agent.event_log = v;
      host_only = true;
    } else if (a == "--ek-certificate" && (v = next())) {
      host_agent.ek_certificate_file = v;
      host_only = true;
    } else if (a == "--out" && (v = next())) {
      out_path = v;
      host_only = true;
    } else if (a == "--interval" && (v = next())) {
      if (!ParseSeconds(v, &interval)) {
        std::fprintf(stderr, "witnessd-agent: --interval: not a positive number of seconds: %s\n", v);
        return 2;
      }
      host_only = true;
    } else if (a == "--measure-boot" && (v = next())) {
      measure_boot = v;
      test_only = true;
    } else if (a == "--swtpm-port" && (v = next())) {
      swtpm_port = std::atoi(v);
    } else if (a == "--software") {
      test_only = true;
      software = true;
    } else if (a == "--certificate") {
      test_only = true;
      options.use_certificate = true;
    } else if (a == "--txt") {
      test_only = true;
      options.boot.txt = true;
    } else if (a == "--no-secure-boot") {
      test_only = true;
      options.boot.secure_boot = false;
    } else if (a == "--incomplete") {
      test_only = true;
      options.log_complete = false;
    } else if (a == "--document" && (v = next())) {
      options.document_types.push_back(v);
    } else if (a == "--print-ek") {
      test_only = true;
      print_ek = true;
    } else if (a == "--ek-only") {
      test_only = true;
      ek_only = true;
    } else if (a == "--imgdb-flags") {
      test_only = true;
      imgdb_flags = true;
    } else if (a == "--event-log-bytes") {
      test_only = true;
      event_log_bytes = true;
    } else if (a == "--count" && (v = next())) {
      test_only = true;
      count = std::max(1, std::atoi(v));
    } else if (a == "--concurrency" && (v = next())) {
      test_only = true;
      concurrency = std::max(1, std::atoi(v));
    } else if (a == "--per-host" && (v = next())) {
      test_only = true;
      per_host = std::max(1, std::atoi(v));
    } else if (a == "--ek-ca-key" && (v = next())) {
      test_only = true;
      ek_ca_key = v;
    } else if (a == "--ek-ca-cert" && (v = next())) {
      test_only = true;
      ek_ca_cert = v;
    } else if (a == "--max-turns" && (v = next())) {
      test_only = true;
      options.max_turns = std::max(1, std::atoi(v));
    } else if (a == "--withhold-quote") {
      test_only = true;
      options.withhold_quote = true;
    } else {
      return Usage();
    }
  }
  if (!host_agent.tcti.empty()) {
    if (test_only || swtpm_port >= 0) {
      return Usage();
    }
    host_agent.host = host;
    host_agent.port = port;
    if (!options.document_types.empty()) {
      host_agent.document_types = options.document_types;
    }
    return RunHostAgent(host_agent, std::chrono::seconds(interval), out_path == nullptr ? "" : out_path);
  }
  if (host_only) {
    return Usage();
  }
  if (imgdb_flags) {
    std::printf("%s\n", ImageDatabaseFlags(options.boot).c_str());
    return 0;
  }
  if (event_log_bytes) {
    std::printf("%zu\n", WriteEventLog(HypervisorBootEvents(options.boot)).size());
    return 0;
  }
  if (software == (swtpm_port >= 0) || ((ek_only || measure_boot != nullptr) && software)) {
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
    if (measure_boot != nullptr) {
      std::vector<BootEvent> events = HypervisorBootEvents(options.boot);
      Bytes log = WriteEventLog(events);
      std::string error;
      if (!MeasureBoot(tpm.get(), options.boot, events)) {
        std::fprintf(stderr, "cannot measure the boot: %s\n", tpm->LastError().c_str());
        return 1;
      }
      if (!WriteFileAtomically(measure_boot, std::string(log.begin(), log.end()), &error)) {
        std::fprintf(stderr, "witnessd-agent: %s\n", error.c_str());
        return 1;
      }
      return 0;
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
