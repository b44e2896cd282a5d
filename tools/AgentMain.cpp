// witnessd-agent: attests a host against a running witnessd.
//
//   witnessd-agent [--host 127.0.0.1] [--port 7889] (--swtpm-port P | --software)
//                  [--certificate] [--txt] [--no-secure-boot] [--incomplete]
//                  [--document KMS_AUTH_JWT|REPORTING_JWT]... [--print-ek]
//                  [--count N] [--concurrency C]
//   witnessd-agent --swtpm-port P --ek-only
//   witnessd-agent [--txt] [--no-secure-boot] --imgdb-flags
//
// --ek-only prints the TPM's EK public key (PEM) without attesting;
// --imgdb-flags prints the image database generator's flags for a base
// image that trusts this agent's synthetic boot. The port defaults to
// WITNESSD_PORT when set.
//
// With --swtpm-port the host's TPM is the swtpm listening there (control
// channel on P + 1). With --software each thread uses one software host (its
// own EK; the AK key is made once); --count and --concurrency then run that
// many attestations on that many threads and print throughput and per-turn
// latencies.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/Agent.h"

namespace {

using namespace Witnessd::Agent;

int Usage() {
  std::fprintf(stderr,
               "usage: witnessd-agent [--host H] [--port P] (--swtpm-port P | --software) [--certificate] [--txt]\n"
               "                      [--no-secure-boot] [--incomplete] [--document TYPE]... [--print-ek]\n"
               "                      [--count N] [--concurrency C]\n"
               "       witnessd-agent --swtpm-port P --ek-only\n"
               "       witnessd-agent [--txt] [--no-secure-boot] --imgdb-flags\n");
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
  std::string host = "127.0.0.1";
  uint16_t port = 7889;
  int swtpm_port = -1;
  bool software = false;
  bool print_ek = false;
  bool ek_only = false;
  bool imgdb_flags = false;
  if (const char* env = std::getenv("WITNESSD_PORT"); env != nullptr) {
    port = static_cast<uint16_t>(std::atoi(env));
  }
  int count = 1;
  int concurrency = 1;
  AttestOptions options;
  options.document_types.clear();
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    const char* v = nullptr;
    if (a == "--host" && (v = next())) {
      host = v;
    } else if (a == "--port" && (v = next())) {
      port = static_cast<uint16_t>(std::atoi(v));
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
    } else if (a == "--count" && (v = next())) {
      count = std::max(1, std::atoi(v));
    } else if (a == "--concurrency" && (v = next())) {
      concurrency = std::max(1, std::atoi(v));
    } else {
      return Usage();
    }
  }
  if (imgdb_flags) {
    std::printf("%s\n", ImageDatabaseFlags(options.boot).c_str());
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
  std::atomic<int> next_index{0};
  std::atomic<int> succeeded{0};
  std::mutex mutex;
  std::vector<std::vector<double>> turn_times(4);
  auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < concurrency; ++t) {
    threads.emplace_back([&]() {
      // One host (one EK) per thread: a thread runs one attestation at a
      // time, so no EK ever holds more than one session.
      std::unique_ptr<HostTpm> tpm = MakeSoftwareHost(/*reuse_ak=*/true);
      while (next_index++ < count) {
        AttestResult r = Attest(tpm.get(), host, port, options);
        std::lock_guard<std::mutex> guard(mutex);
        if (r.ok) {
          ++succeeded;
          for (size_t i = 0; i < r.turn_seconds.size() && i < turn_times.size(); ++i) {
            turn_times[i].push_back(r.turn_seconds[i]);
          }
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
  if (count > 1) {
    std::printf("attestations %d ok %d seconds %.3f per-second %.1f\n", count, succeeded.load(), seconds,
                succeeded.load() / seconds);
    for (size_t i = 0; i < turn_times.size(); ++i) {
      std::printf("turn %zu p50 %.3f ms p99 %.3f ms\n", i + 1, 1000 * Percentile(turn_times[i], 0.5),
                  1000 * Percentile(turn_times[i], 0.99));
    }
  }
  return succeeded.load() == count ? 0 : 1;
}
