// The session manager: the table of live attestation sessions, their limits,
// expiry and statistics, and the turn of the attestation conversation that
// each Report call runs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/MXUser.h"
#include "tpm2/Session.h"

namespace attestation::proto {
class Context;
}  // namespace attestation::proto

namespace Hearth::Service {
class Config;
class Scheduler;
}  // namespace Hearth::Service

namespace Witnessd::Tpm2 {

struct SessionLimits {
  int32_t max_sessions = 1000;
  int32_t max_sessions_per_ek = 5;
  int64_t timeout_us = 300LL * 1000000;
  // Quotes must be the TPM's own attestation over exactly the requested
  // PCRs (see Session); false accepts any selection the quote binds.
  bool strict_quote_checks = true;
};

// ReadSessionLimits reads "maxSessions", "maxSessionsPerEk",
// "sessionTimeoutSeconds" and "strictQuoteChecks" from |settings|; a limit
// out of its range is logged and replaced by the default. Each limit in use
// is logged, and lenient quote checks with a warning.
SessionLimits ReadSessionLimits(const Hearth::Service::Config& settings);

// Cumulative for the life of the manager.
struct SessionStatistics {
  uint64_t success = 0;
  uint64_t success_total_ms = 0;
  uint64_t success_min_ms = UINT64_MAX;  // untouched until the first success
  uint64_t success_max_ms = 0;
  uint64_t failed = 0;
  uint64_t failed_total_ms = 0;
  uint64_t timed_out = 0;
  uint64_t peak = 0;
};

struct ProcessResult {
  SessionResult code = SessionResult::kSuccess;
  Bytes out_context;  // serialized Context while the conversation goes on
  bool done = false;
  AttestationOutcome outcome;  // set when done
};

class Attestation {
 public:
  // Monotonic time in microseconds.
  using Clock = std::function<uint64_t()>;
  static uint64_t SystemClock();

  explicit Attestation(SessionLimits limits, Clock clock = SystemClock);
  ~Attestation();
  Attestation(const Attestation&) = delete;
  Attestation& operator=(const Attestation&) = delete;

  // Initialize creates the process-wide manager with limits from |settings|
  // and arms its cleanup and statistics timers on |scheduler|. Called once
  // at start-up, before the API serves.
  static void Initialize(const Hearth::Service::Config& settings, Hearth::Service::Scheduler& scheduler);
  // Get returns the process-wide manager; null before Initialize.
  static Attestation* Get();

  // ProcessRequest runs one turn of the conversation for the host whose EK
  // is |ek_pem|. |context| is absent on the first call. On kSuccess either
  // done is false and out_context holds the next requests, or done is true
  // and the outcome is set. Any other code is the failure; nothing throws.
  ProcessResult ProcessRequest(const std::string& ek_pem, const std::optional<Bytes>& context);

  // EndRefusedSession ends, as failed, the session that |context| names when
  // |ek_pem| is that session's EK: for a later call that EK identification
  // refused. Any other call leaves every session as it is.
  void EndRefusedSession(const std::string& ek_pem, const Bytes& context);

  // CleanupExpiredSessions removes every session older than the timeout.
  void CleanupExpiredSessions();
  // LogStatistics writes the "TPM2 STATS" line.
  void LogStatistics();

  SessionStatistics Statistics();
  size_t SessionCount();
  const SessionLimits& Limits() const { return limits_; }

 private:
  ProcessResult StartSession(const Bytes& ek_digest);
  ProcessResult ContinueSession(const Bytes& ek_digest, const Bytes& context);
  // Reply serializes |out| as the next context; a failure ends |session|.
  ProcessResult Reply(const attestation::proto::Context& out, const std::shared_ptr<Session>& session);
  std::shared_ptr<Session> FindSession(uint64_t id);
  void EndSession(const std::shared_ptr<Session>& session, bool success);
  void ScheduleCleanupExpiredSessions(Hearth::Service::Scheduler& scheduler);
  void ScheduleStatistics(Hearth::Service::Scheduler& scheduler);

  const SessionLimits limits_;
  const Clock clock_;
  MXUserRWLock* table_lock_;
  std::unordered_map<uint64_t, std::shared_ptr<Session>> sessions_;
  MXUserExclLock* stats_lock_;
  SessionStatistics stats_;
};

}  // namespace Witnessd::Tpm2
