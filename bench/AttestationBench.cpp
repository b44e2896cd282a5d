// The daemon's side of one whole attestation (four Report calls: session,
// credential, quote and event log checks, base image lookup, token signing,
// last-attested-time write) against the one RSA-2048 private-key operation
// every answer needs anyway, measured in the same run. The software host's
// own work (AK, activation, quote signing) is excluded from the timing.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "api/services/ReportImpl.h"
#include "bench/RatioReporter.h"
#include "config/Configuration.h"
#include "config/SigningKey.h"
#include "config/tpm2/TrustConfiguration.h"
#include "document/AttestationToken.h"
#include "platform/Log.h"
#include "tests/tpm2/InProcessReport.h"
#include "tools/Agent.h"
#include "tpm2/SessionManager.h"
#include "trusted/BaseImageStore.h"

namespace {

using namespace Witnessd;

// A temporary directory, removed with everything in it.
struct TempDir {
  std::string path = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "witnessd-bench-XXXXXX").string();
    return std::string(mkdtemp(pattern.data()));
  }();
  ~TempDir() { std::filesystem::remove_all(path); }
};

// ThreadSeconds is the CPU time of the calling thread: on a shared machine
// it does not count the time other programs took the core.
double ThreadSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// World is the daemon's objects over a store in a temporary directory:
// signing key, the host's EK, a base image matching its boot.
struct World {
  TempDir dir;  // outlives the store
  Config::Store store = HyvConfig::HyvConfigStore::Open(dir.path + "/configstore.db");
  Config::StatusConditions status;
  Config::SigningKeys keys{store};
  Config::Tpm2::TrustConfiguration trust{store};
  Trusted::BaseImageStore images{store, status};
  Tpm2::SessionManager manager{Tpm2::SessionLimits{}, images};
  Document::TokenSigner signer{keys, 0};
  AttestApi::ReportImpl report{trust, manager, signer};
  std::unique_ptr<Agent::HostTpm> host = Agent::MakeSoftwareHost(/*reuse_ak=*/true);
  // The key of the bare signatures measured beside the attestations.
  std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> reference_key{EVP_RSA_gen(2048), EVP_PKEY_free};

  World() {
    keys.Ensure();
    trust.Load();
    trust.UpdateTpm2Settings(true, false);
    std::vector<uint8_t> ek;
    std::string ek_pem;
    host->EkPublic(&ek);
    Agent::EkPublicPem(ek, &ek_pem);
    trust.AddEndorsementKey("bench", ek_pem);
    Testing::PutBaseImage(images, Agent::BootPlan{}, "8.0.1-1");
  }
};

// AddHost makes a software host whose EK |world| trusts as |name|.
std::unique_ptr<Agent::HostTpm> AddHost(World& world, const std::string& name) {
  std::unique_ptr<Agent::HostTpm> host = Agent::MakeSoftwareHost(/*reuse_ak=*/true);
  std::vector<uint8_t> ek;
  std::string ek_pem;
  host->EkPublic(&ek);
  Agent::EkPublicPem(ek, &ek_pem);
  world.trust.AddEndorsementKey(name, ek_pem);
  return host;
}

World& TheWorld() {
  static World world;
  return world;
}

// BareSign makes one RSA-2048 PKCS#1 v1.5 SHA-256 signature with |key|.
bool BareSign(EVP_PKEY* key) {
  unsigned char digest[32] = {1};
  unsigned char sig[256];
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  size_t sig_len = sizeof(sig);
  bool ok = EVP_PKEY_sign_init(ctx) == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
            EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) == 1 &&
            EVP_PKEY_sign(ctx, sig, &sig_len, digest, sizeof(digest)) == 1;
  EVP_PKEY_CTX_free(ctx);
  return ok;
}

// Manual timing: only the Report calls count, by the thread's CPU time.
// Each attestation is followed by one bare signature, timed alike: the
// counter "bare_sign" (seconds per iteration) is the reference measured
// under the same conditions, which on a shared machine change by the second.
void BM_AttestationDaemonSide(benchmark::State& state) {
  World& w = TheWorld();
  Agent::AttestOptions options;
  options.measure_boot = false;  // the software host's PCRs keep the first boot
  Agent::AttestResult first =
      Agent::AttestWith(w.host.get(), Agent::AttestOptions{}, Testing::InProcessTransport(&w.report));
  if (!first.ok) {
    state.SkipWithError(("attestation failed: " + first.failure + first.error_id).c_str());
    return;
  }
  double bare_sign_seconds = 0;
  for (auto _ : state) {
    double seconds = 0;
    auto timed = [&seconds](const std::function<void()>& call) {
      double start = ThreadSeconds();
      call();
      seconds += ThreadSeconds() - start;
    };
    Agent::AttestResult r = Agent::AttestWith(w.host.get(), options, Testing::InProcessTransport(&w.report, timed));
    if (!r.ok) {
      state.SkipWithError(("attestation failed: " + r.failure + r.error_id).c_str());
      break;
    }
    state.SetIterationTime(seconds);
    double start = ThreadSeconds();
    if (!BareSign(w.reference_key.get())) {
      state.SkipWithError("bare sign failed");
      break;
    }
    bare_sign_seconds += ThreadSeconds() - start;
  }
  state.counters["bare_sign"] = benchmark::Counter(bare_sign_seconds, benchmark::Counter::kAvgIterations);
}
// Five repetitions each: the ratio takes the medians (the machine is shared).
BENCHMARK(BM_AttestationDaemonSide)
    ->UseManualTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// Reference: one RSA-2048 signature, what signing one token costs at the
// least; timed by CPU time like the attestation.
void BM_BareRsa2048Sign(benchmark::State& state) {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  for (auto _ : state) {
    double start = ThreadSeconds();
    if (!BareSign(key)) {
      state.SkipWithError("bare sign failed");
    }
    state.SetIterationTime(ThreadSeconds() - start);
  }
  EVP_PKEY_free(key);
}
BENCHMARK(BM_BareRsa2048Sign)
    ->UseManualTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// PerSecond runs |job|(thread, i) for i = 0, 1, ... on each of |threads|
// threads for about |seconds|: the rate of all threads together, 0 when a
// call failed.
double PerSecond(size_t threads, double seconds, const std::function<bool(size_t, size_t)>& job) {
  std::atomic<bool> stop{false};
  std::atomic<bool> failed{false};
  std::vector<uint64_t> counts(threads, 0);
  std::vector<std::thread> workers;
  auto start = std::chrono::steady_clock::now();
  for (size_t t = 0; t < threads; t++) {
    workers.emplace_back([&, t] {
      for (size_t i = 0; !stop.load(std::memory_order_relaxed); i++) {
        if (!job(t, i)) {
          failed = true;
          return;
        }
        counts[t]++;
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& w : workers) {
    w.join();
  }
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  uint64_t total = 0;
  for (uint64_t c : counts) {
    total += c;
  }
  return failed ? 0 : static_cast<double>(total) / elapsed;
}

struct Scaling {
  double attestations = 0;  // in-process attestations per second, 2 threads / 1
  double bare_signs = 0;    // bare RSA-2048 signatures per second, 2 threads / 1
};

// ThreadScaling measures in-process attestations (host and daemon side)
// against the one daemon of |world|, each thread with its own booted software
// hosts, and, as what the machine gives at best, bare signatures with one
// key per thread: the rate on 2 threads over the rate on 1, the median of a
// few alternating rounds (the machine is shared). 0 when a call failed.
Scaling ThreadScaling(World& world) {
  constexpr size_t kThreads = 2;
  std::vector<std::unique_ptr<Agent::HostTpm>> hosts;
  for (size_t i = 0; i < 2 * kThreads; i++) {
    hosts.push_back(AddHost(world, "scaling-" + std::to_string(i)));
    // The first attestation boots the host and measures its boot.
    if (!Agent::AttestWith(hosts.back().get(), Agent::AttestOptions{}, Testing::InProcessTransport(&world.report)).ok) {
      return {};
    }
  }
  Agent::AttestOptions options;
  options.measure_boot = false;
  std::vector<Agent::ReportTransport> transports(kThreads, Testing::InProcessTransport(&world.report));
  // Each thread takes turns over its own two hosts.
  auto attest = [&](size_t t, size_t i) {
    return Agent::AttestWith(hosts[2 * t + i % 2].get(), options, transports[t]).ok;
  };
  std::vector<std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>> keys;
  for (size_t t = 0; t < kThreads; t++) {
    keys.emplace_back(EVP_RSA_gen(2048), EVP_PKEY_free);
  }
  auto sign = [&](size_t t, size_t) { return BareSign(keys[t].get()); };
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::vector<double> attestations;
  std::vector<double> signs;
  for (int round = 0; round < 5; round++) {
    double one = PerSecond(1, 1.0, attest);
    double two = PerSecond(kThreads, 1.0, attest);
    double sign_one = PerSecond(1, 0.5, sign);
    double sign_two = PerSecond(kThreads, 0.5, sign);
    if (one == 0 || two == 0 || sign_one == 0 || sign_two == 0) {
      return {};
    }
    attestations.push_back(two / one);
    signs.push_back(sign_two / sign_one);
  }
  return {median(attestations), median(signs)};
}

// Reporter also keeps the median of the attestation's "bare_sign" counter.
class Reporter : public Bench::RatioReporter {
 public:
  Reporter() : RatioReporter(Clock::kReal) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    RatioReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      auto counter = run.counters.find("bare_sign");
      if (!run.error_occurred && run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" &&
          counter != run.counters.end()) {
        bare_sign = counter->second.value;
      }
    }
  }
  double bare_sign = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Log_SetMaxLevel(kLogError);
  benchmark::Initialize(&argc, argv);
  // Both benchmarks time themselves by hand, in thread CPU time. The ratio
  // takes the bare signatures made beside the attestations; the bare
  // signature benchmark shows the same alone.
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double attest = reporter.Seconds("BM_AttestationDaemonSide");
  double sign = reporter.bare_sign;
  if (attest > 0 && sign > 0) {
    std::printf("attestation (daemon side) time / bare RSA-2048 sign time: %.2f\n", attest / sign);
    std::printf("attestations per second on one core (daemon side):       %.0f\n", 1.0 / attest);
  }
  Scaling scaling = ThreadScaling(TheWorld());
  std::printf("in-process attestations per second 2 threads / 1 thread: %.2f\n", scaling.attestations);
  // What this machine gives two threads now: other programs share the cores.
  std::printf("bare RSA-2048 signs per second 2 threads / 1 thread:     %.2f\n", scaling.bare_signs);
  benchmark::Shutdown();
  return 0;
}
