// The session manager: the table of live attestation sessions, their limits,
// expiry and statistics, and the turn of the attestation conversation that
// each Report call runs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "config/tpm2/EkId.h"
#include "platform/MXUser.h"
#include "tpm2/Session.h"
#include "trusted/BaseImageStore.h"

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
  // Unproven sessions this call ended to make room for its own.
  uint32_t evicted = 0;
};

class SessionManager {
 public:
  // Monotonic time in microseconds.
  using Clock = std::function<uint64_t()>;
  static uint64_t SystemClock();

  // |images| gives the trusted measurements of a host's software; it
  // outlives the manager. Registers the session metrics.
  SessionManager(SessionLimits limits, Trusted::BaseImageStore& images, Clock clock = SystemClock);
  ~SessionManager();
  SessionManager(const SessionManager&) = delete;
  SessionManager& operator=(const SessionManager&) = delete;

  // Start arms the cleanup and statistics timers on |scheduler|; called once
  // at start-up, before the API serves.
  void Start(Hearth::Service::Scheduler& scheduler);

  // ProcessRequest runs one turn of the conversation for the host whose EK,
  // already identified as trusted, is |ek|. |context| is absent on the first call. On kSuccess either
  // done is false and out_context holds the next requests, or done is true
  // and the outcome is set. Any other code is the failure; nothing throws.
  //
  // A session is unproven until its caller has activated the credential,
  // which only the EK's own TPM can do, and proven after. A first call that
  // finds its EK at maxSessionsPerEk sessions, or the table at maxSessions,
  // ends the oldest unproven session there (of that EK, or of any EK) to
  // take its place; only proven sessions make it wait (kSessionLimit, or
  // kInternalFailure for a full table).
  ProcessResult ProcessRequest(const Config::Tpm2::EkId& ek, const std::optional<Bytes>& context);

  // EndRefusedSession ends, as failed, the session that |context| names when
  // |ek| is that session's EK: for a later call that EK identification
  // refused. Any other call leaves every session as it is.
  void EndRefusedSession(const Config::Tpm2::EkId& ek, const Bytes& context);

  // CleanupExpiredSessions removes every session older than the timeout.
  void CleanupExpiredSessions();
  // LogStatistics writes the "TPM2 STATS" line.
  void LogStatistics();

  SessionStatistics Statistics();
  size_t SessionCount();
  // EkSessionCount is the number of live sessions of |ek|.
  size_t EkSessionCount(const Config::Tpm2::EkId& ek);
  const SessionLimits& Limits() const { return limits_; }

 private:
  ProcessResult StartSession(const Config::Tpm2::EkId& ek);
  ProcessResult ContinueSession(const Config::Tpm2::EkId& ek, const Bytes& context);
  // Reply serializes |out| as the next context; a failure ends |session|.
  ProcessResult Reply(const attestation::proto::Context& out, const std::shared_ptr<Session>& session);
  std::shared_ptr<Session> FindSession(uint64_t id);
  void EndSession(const std::shared_ptr<Session>& session, bool success);
  // CountEnded adds an ended session to the statistics.
  void CountEnded(const Session& session, bool success);

  // A live session in the table, with its admission number: unproven
  // sessions are ended oldest admitted first.
  struct Entry {
    std::shared_ptr<Session> session;
    uint64_t admitted = 0;
    bool proven = false;
  };
  // The live sessions of one EK; the unproven ones by (admission, id).
  struct EkSessions {
    size_t live = 0;
    std::set<std::pair<uint64_t, uint64_t>> unproven;
  };
  // The table's bookkeeping; each runs under the table's write lock.
  void Admit(const std::shared_ptr<Session>& session);
  // Remove takes |id| out of the table and the EK's count; null when it is
  // no longer there.
  std::shared_ptr<Session> Remove(uint64_t id);
  // MakeRoom ends the oldest unproven session among |candidates| into
  // |evicted|; false when there is none.
  bool MakeRoom(const std::set<std::pair<uint64_t, uint64_t>>& candidates,
                std::vector<std::shared_ptr<Session>>& evicted);
  // MarkProven moves |id| out of the unproven orders; false when it is no
  // longer in the table (ended by expiry or for a newer session).
  bool MarkProven(uint64_t id);
  void ScheduleCleanupExpiredSessions(Hearth::Service::Scheduler& scheduler);
  void ScheduleStatistics(Hearth::Service::Scheduler& scheduler);

  const SessionLimits limits_;
  Trusted::BaseImageStore& images_;
  const Clock clock_;
  MXUserRWLock* table_lock_;
  // Guarded by table_lock_.
  std::unordered_map<uint64_t, Entry> sessions_;
  std::map<Config::Tpm2::EkId, EkSessions> ek_sessions_;
  std::set<std::pair<uint64_t, uint64_t>> unproven_;
  uint64_t next_admission_ = 0;
  MXUserExclLock* stats_lock_;
  SessionStatistics stats_;
  // What the sessions established of the EKs they checked.
  PreparedEks prepared_eks_;
};

}  // namespace Witnessd::Tpm2
