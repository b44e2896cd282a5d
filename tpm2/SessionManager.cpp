#include "tpm2/SessionManager.h"

#include <climits>
#include <utility>

#include "platform/Assert.h"
#include "platform/Hearth.h"
#include "platform/Hex.h"
#include "platform/Log.h"
#include "platform/Metrics.h"
#include "platform/System.h"
#include "tpm2/CredentialProtection.h"
#include "tpm2/SessionSteps.h"
#include "tpm2/proto/attestation.pb.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Tpm2 {
namespace {

constexpr const char* kSourcePath = "apps/witnessd/tpm2/SessionManager";

using attestation::proto::Context;
using Config::Tpm2::EkId;
using Config::Tpm2::EkIdHex;

constexpr uint64_t kCleanupIntervalUs = 30ULL * 1000000;
constexpr uint64_t kStatisticsIntervalUs = 600ULL * 1000000;
constexpr int64_t kUsPerSecond = 1000000;
constexpr const char* kSoftwareType = "hyv";

// The session metrics; the constructor registers them so that a fresh daemon
// lists them at zero.
Metrics::Gauge& LiveSessions() {
  static Metrics::Gauge& gauge = Metrics::GetGauge("witnessd_attestation_sessions", "Live attestation sessions.");
  return gauge;
}

Metrics::Gauge& PeakSessions() {
  static Metrics::Gauge& gauge =
      Metrics::GetGauge("witnessd_attestation_sessions_peak", "Most attestation sessions live at once.");
  return gauge;
}

Metrics::Histogram& SessionSeconds(bool success) {
  static constexpr const char* kHelp = "Durations of ended attestation sessions.";
  static Metrics::Histogram& succeeded =
      Metrics::GetHistogram("witnessd_attestation_session_seconds", kHelp, {{"outcome", "success"}});
  static Metrics::Histogram& failed =
      Metrics::GetHistogram("witnessd_attestation_session_seconds", kHelp, {{"outcome", "failed"}});
  return success ? succeeded : failed;
}

// ReadLimit reads one integer setting; out of [min, max] it is logged with
// |warning| and |def| is used.
int64_t ReadLimit(const Hearth::Service::Config& settings, const char* key, int64_t def, int64_t min, int64_t max,
                  const char* warning) {
  int64_t value = settings.GetInt(key, def);
  if (value < min || value > max) {
    int shown = value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
    Log_Level(kLogWarning, warning, shown);
    return def;
  }
  return value;
}

ProcessResult Fail(SessionResult code) {
  ProcessResult r;
  r.code = code;
  return r;
}

// Serialize writes |context| into |out|, sized to its encoding.
bool Serialize(const Context& context, Bytes& out) {
  size_t size = context.ByteSizeLong();
  if (size > static_cast<size_t>(INT_MAX)) {
    return false;
  }
  out.resize(size);
  return context.SerializeToArray(out.data(), static_cast<int>(size));
}

}  // namespace

SessionLimits ReadSessionLimits(const Hearth::Service::Config& settings) {
  SessionLimits defaults;
  SessionLimits limits;
  limits.max_sessions = static_cast<int32_t>(ReadLimit(settings, "maxSessions", defaults.max_sessions, 100, 10000,
                                                       "Invalid max sessions configured: %d\n"));
  Log_Level(kLogInfo, "Max sessions: %d\n", limits.max_sessions);
  limits.max_sessions_per_ek = static_cast<int32_t>(ReadLimit(settings, "maxSessionsPerEk",
                                                              defaults.max_sessions_per_ek, 1, 20,
                                                              "Invalid max sessions per-EK configured: %d\n"));
  Log_Level(kLogInfo, "Max sessions per-EK: %d\n", limits.max_sessions_per_ek);
  int64_t timeout_s = ReadLimit(settings, "sessionTimeoutSeconds", defaults.timeout_us / kUsPerSecond, 30, 1800,
                                "Invalid session timeout configured: %d\n");
  limits.timeout_us = timeout_s * kUsPerSecond;
  Log_Level(kLogInfo, "Session timeout: %ld us\n", limits.timeout_us);
  limits.strict_quote_checks = settings.GetBool("strictQuoteChecks", defaults.strict_quote_checks);
  if (!limits.strict_quote_checks) {
    Log_Level(kLogWarning,
              "Strict quote checks disabled: a quote need not carry the TPM's magic nor cover every PCR used\n");
  }
  return limits;
}

uint64_t SessionManager::SystemClock() {
  return Hostinfo_SystemTimerNS() / 1000;
}

SessionManager::SessionManager(SessionLimits limits, Trusted::BaseImageStore& images, Clock clock)
    : limits_(limits),
      images_(images),
      clock_(std::move(clock)),
      table_lock_(MXUser_CreateRWLock("tpm2Sessions", kRankUnranked)),
      stats_lock_(MXUser_CreateExclLock("tpm2SessionStats", kRankUnranked)) {
  VERIFY(table_lock_ != nullptr && stats_lock_ != nullptr);
  sessions_.max_load_factor(1.0);
  sessions_.reserve(static_cast<size_t>(limits_.max_sessions));
  LiveSessions();
  PeakSessions();
  SessionSeconds(true);
  SessionSeconds(false);
}

SessionManager::~SessionManager() {
  MXUser_DestroyRWLock(table_lock_);
  MXUser_DestroyExclLock(stats_lock_);
}

void SessionManager::Start(Hearth::Service::Scheduler& scheduler) {
  ScheduleCleanupExpiredSessions(scheduler);
  ScheduleStatistics(scheduler);
}

void SessionManager::ScheduleCleanupExpiredSessions(Hearth::Service::Scheduler& scheduler) {
  scheduler.AddTimer(kCleanupIntervalUs, [this, &scheduler] {
    CleanupExpiredSessions();
    ScheduleCleanupExpiredSessions(scheduler);
  });
}

void SessionManager::ScheduleStatistics(Hearth::Service::Scheduler& scheduler) {
  scheduler.AddTimer(kStatisticsIntervalUs, [this, &scheduler] {
    LogStatistics();
    ScheduleStatistics(scheduler);
  });
}

ProcessResult SessionManager::ProcessRequest(const EkId& ek, const std::optional<Bytes>& context) {
  return context ? ContinueSession(ek, *context) : StartSession(ek);
}

ProcessResult SessionManager::StartSession(const EkId& ek_id) {
  auto session = std::make_shared<Session>(ek_id, clock_(), limits_.strict_quote_checks, &prepared_eks_);
  std::vector<std::shared_ptr<Session>> evicted;
  SessionResult refused = SessionResult::kSuccess;
  size_t ek_live = 0;
  size_t live = 0;
  {
    MXUser::WriteGuard guard(table_lock_);
    // A first call proves nothing: anyone may present a host's EK, which is
    // public. Were its place kept for the session's lifetime, strangers
    // could hold every place of a host's EK, or of the whole table, and
    // lock real hosts out at will; so a new session takes the place of the
    // oldest one that has not activated its credential, and only sessions
    // that have (whose caller holds the TPM) keep theirs until they end.
    auto ek = ek_sessions_.find(ek_id);
    if (ek != ek_sessions_.end() && ek->second.live >= static_cast<size_t>(limits_.max_sessions_per_ek) &&
        !MakeRoom(ek->second.unproven, evicted)) {
      ek_live = ek->second.live;
      refused = SessionResult::kSessionLimit;
    } else if (sessions_.size() >= static_cast<size_t>(limits_.max_sessions) && !MakeRoom(unproven_, evicted)) {
      refused = SessionResult::kInternalFailure;
    } else if (sessions_.count(session->Id()) != 0) {
      refused = SessionResult::kInternalFailure;
    } else {
      Admit(session);
    }
    live = sessions_.size();
    LiveSessions().Set(static_cast<double>(live));
  }
  for (const std::shared_ptr<Session>& ended : evicted) {
    Log_Level(kLogWarning, "Ending unproven session %lu of EK %s for a new session\n", ended->Id(),
              EkIdHex(ended->Ek()).c_str());
    Log_Level(kLogInfo, "End session %lu: %s\n", ended->Id(), "failed");
    CountEnded(*ended, false);
  }
  if (refused != SessionResult::kSuccess) {
    if (refused == SessionResult::kSessionLimit) {
      Log_Level(kLogError, "Reached max EK reference count: %d\n", static_cast<int>(ek_live));
    } else {
      Log_Level(kLogError, "Unable to allocate new session\n");
    }
    Log_Level(kLogError, "Failed to start attestation\n");
    ProcessResult result = Fail(refused);
    result.evicted = static_cast<uint32_t>(evicted.size());
    return result;
  }

  Context out;
  out.set_session_id(session->Id());
  auto* create = out.add_messages()->mutable_create_ak_request();
  create->set_ak_template(ToString(AkTemplate()));
  create->set_outside_info(ToString(OutsideInfo()));
  Log_Level(kLogInfo, "New attestation session: %lu\n", session->Id());

  {
    MXUser::ExclGuard guard(stats_lock_);
    if (live > stats_.peak) {
      stats_.peak = live;
      PeakSessions().Set(static_cast<double>(live));
    }
  }

  ProcessResult result = Reply(out, session);
  result.evicted = static_cast<uint32_t>(evicted.size());
  return result;
}

ProcessResult SessionManager::ContinueSession(const EkId& ek, const Bytes& context) {
  Context in;
  if (context.size() > static_cast<size_t>(INT_MAX) ||
      !in.ParseFromArray(context.data(), static_cast<int>(context.size()))) {
    Log_Level(kLogError, "Invalid attestation context\n");
    return Fail(SessionResult::kInvalidInput);
  }
  if (!in.has_session_id()) {
    Log_Level(kLogError, "No session ID specified in context\n");
    return Fail(SessionResult::kUnknownSession);
  }
  std::shared_ptr<Session> session = FindSession(in.session_id());
  if (session == nullptr) {
    Log_Level(kLogError, "Invalid session ID: %lu\n", in.session_id());
    return Fail(SessionResult::kUnknownSession);
  }
  Log_Level(kLogVerbose, "Process request for session ID: %lu\n", session->Id());
  if (ek != session->Ek()) {
    Log_Level(kLogError, "EK public key digest does not match\n");
    Log_Level(kLogError, "Ek public key not valid for session %lu\n", session->Id());
    return Fail(SessionResult::kInvalidInput);
  }

  Context out;
  out.set_session_id(session->Id());
  SessionResult code = SessionResult::kSuccess;
  if (in.messages_size() == 0) {
    Log_Level(kLogError, "Context specifies no messages\n");
    code = SessionResult::kInvalidInput;
  }
  bool activated = false;
  for (int i = 0; i < in.messages_size() && code == SessionResult::kSuccess; i++) {
    code = CheckResponses(in.messages(i));
    if (code == SessionResult::kSuccess) {
      code = HandleMessage(*session, in.messages(i), out, activated);
    }
  }
  // A session ended for a newer one while this turn ran has no place left
  // to keep, proven or not.
  if (code == SessionResult::kSuccess && activated && !MarkProven(session->Id())) {
    Log_Level(kLogError, "Invalid session ID: %lu\n", session->Id());
    return Fail(SessionResult::kUnknownSession);
  }
  if (code != SessionResult::kSuccess) {
    Log_Level(kLogError, "Failed attestation for session ID: %lu\n", session->Id());
    EndSession(session, false);
    return Fail(code);
  }

  if (session->State() == SessionState::kReadyForAttestation) {
    // The base image is looked up by the Hvkernel digest of the log as
    // replayed against the verified quote.
    code = session->VerifyEvidence();
    std::string hvkernel = session->HvkernelDigest();
    std::shared_ptr<const Trusted::BaseImageData> image;
    std::string version;
    if (code != SessionResult::kSuccess) {
      Log_Level(kLogError, "Attestation failed for session ID: %lu\n", session->Id());
    } else if ((image = images_.Lookup(hvkernel)) == nullptr) {
      Log_Level(kLogError, "Unknown Hvkernel digest: %s\n", hvkernel.c_str());
      code = SessionResult::kUnknownSoftware;
    } else {
      version = image->version;
      code = session->Attest({image->txt_mle_digest, image->payload_checksums});
      if (code != SessionResult::kSuccess) {
        Log_Level(kLogError, "Attestation failed for session ID: %lu\n", session->Id());
      }
    }
    if (code != SessionResult::kSuccess) {
      EndSession(session, false);
      return Fail(code);
    }
    images_.UpdateLastAttestedTime(version);
    ProcessResult result;
    result.done = true;
    result.outcome = {kSoftwareType, version, session->AttestedProperties()};
    Log_Level(kLogInfo, "Attestation complete for session ID %lu with HYV version %s\n", session->Id(),
              version.c_str());
    EndSession(session, true);
    return result;
  }

  return Reply(out, session);
}

void SessionManager::EndRefusedSession(const EkId& ek, const Bytes& context) {
  Context in;
  if (context.size() > static_cast<size_t>(INT_MAX) ||
      !in.ParseFromArray(context.data(), static_cast<int>(context.size())) || !in.has_session_id()) {
    return;
  }
  std::shared_ptr<Session> session = FindSession(in.session_id());
  if (session == nullptr || session->Ek() != ek) {
    return;
  }
  Log_Level(kLogError, "Failed attestation for session ID: %lu\n", session->Id());
  EndSession(session, false);
}

ProcessResult SessionManager::Reply(const attestation::proto::Context& out, const std::shared_ptr<Session>& session) {
  ProcessResult result;
  if (!Serialize(out, result.out_context)) {
    Log_Level(kLogError, "Failed to serialize out context\n");
    EndSession(session, false);
    return Fail(SessionResult::kInternalFailure);
  }
  return result;
}

std::shared_ptr<Session> SessionManager::FindSession(uint64_t id) {
  MXUser::ReadGuard guard(table_lock_);
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : it->second.session;
}

void SessionManager::Admit(const std::shared_ptr<Session>& session) {
  uint64_t admitted = next_admission_++;
  sessions_.emplace(session->Id(), Entry{session, admitted, false});
  EkSessions& ek = ek_sessions_[session->Ek()];
  ek.live++;
  ek.unproven.emplace(admitted, session->Id());
  unproven_.emplace(admitted, session->Id());
}

std::shared_ptr<Session> SessionManager::Remove(uint64_t id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    return nullptr;
  }
  Entry entry = std::move(it->second);
  sessions_.erase(it);
  auto ek = ek_sessions_.find(entry.session->Ek());
  VERIFY(ek != ek_sessions_.end() && ek->second.live > 0);
  if (!entry.proven) {
    ek->second.unproven.erase({entry.admitted, id});
    unproven_.erase({entry.admitted, id});
  }
  if (--ek->second.live == 0) {
    ek_sessions_.erase(ek);
  }
  return entry.session;
}

bool SessionManager::MakeRoom(const std::set<std::pair<uint64_t, uint64_t>>& candidates,
                           std::vector<std::shared_ptr<Session>>& evicted) {
  if (candidates.empty()) {
    return false;
  }
  // Copied: Remove erases it from |candidates|.
  uint64_t id = candidates.begin()->second;
  std::shared_ptr<Session> session = Remove(id);
  VERIFY(session != nullptr);
  evicted.push_back(std::move(session));
  return true;
}

bool SessionManager::MarkProven(uint64_t id) {
  MXUser::WriteGuard guard(table_lock_);
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    return false;
  }
  Entry& entry = it->second;
  if (!entry.proven) {
    entry.proven = true;
    auto ek = ek_sessions_.find(entry.session->Ek());
    VERIFY(ek != ek_sessions_.end());
    ek->second.unproven.erase({entry.admitted, id});
    unproven_.erase({entry.admitted, id});
  }
  return true;
}

void SessionManager::EndSession(const std::shared_ptr<Session>& session, bool success) {
  Log_Level(kLogInfo, "End session %lu: %s\n", session->Id(), success ? "success" : "failed");
  std::shared_ptr<Session> removed;
  {
    MXUser::WriteGuard guard(table_lock_);
    removed = Remove(session->Id());
    LiveSessions().Set(static_cast<double>(sessions_.size()));
  }
  // A session leaves the table once: when the cleanup or a newer session
  // took it first, it was counted there.
  if (removed != nullptr) {
    CountEnded(*session, success);
  }
}

void SessionManager::CountEnded(const Session& session, bool success) {
  int64_t elapsed_us = static_cast<int64_t>(clock_() - session.Created());
  uint64_t duration_ms = static_cast<uint64_t>(elapsed_us / 1000);
  SessionSeconds(success).Observe(static_cast<double>(elapsed_us) / 1e6);
  MXUser::ExclGuard guard(stats_lock_);
  if (success) {
    stats_.success++;
    stats_.success_total_ms += duration_ms;
    if (duration_ms < stats_.success_min_ms) {
      stats_.success_min_ms = duration_ms;
    }
    if (duration_ms > stats_.success_max_ms) {
      stats_.success_max_ms = duration_ms;
    }
  } else {
    stats_.failed++;
    stats_.failed_total_ms += duration_ms;
  }
}

void SessionManager::CleanupExpiredSessions() {
  Log_Level(kLogVerbose, "Running cleanup\n");
  uint64_t now = clock_();
  size_t expired = 0;
  {
    MXUser::WriteGuard guard(table_lock_);
    std::vector<uint64_t> ids;
    for (const auto& [id, entry] : sessions_) {
      const Session& s = *entry.session;
      if (static_cast<int64_t>(now - s.Created()) > limits_.timeout_us) {
        Log_Level(kLogInfo, "Removing expired session %lu\n", s.Id());
        ids.push_back(id);
      }
    }
    for (uint64_t id : ids) {
      Remove(id);
    }
    expired = ids.size();
    LiveSessions().Set(static_cast<double>(sessions_.size()));
  }
  MXUser::ExclGuard guard(stats_lock_);
  stats_.timed_out += expired;
}

void SessionManager::LogStatistics() {
  MXUser::ExclGuard guard(stats_lock_);
  const SessionStatistics& s = stats_;
  Log_Level(kLogInfo, "TPM2 STATS: success=%lu (%lu/%lu/%lu) failed=%lu (%lu) timedout=%lu peak=%lu\n", s.success,
            s.success == 0 ? 0 : s.success_total_ms / s.success, s.success_min_ms == UINT64_MAX ? 0 : s.success_min_ms,
            s.success_max_ms, s.failed, s.failed == 0 ? 0 : s.failed_total_ms / s.failed, s.timed_out, s.peak);
}

SessionStatistics SessionManager::Statistics() {
  MXUser::ExclGuard guard(stats_lock_);
  return stats_;
}

size_t SessionManager::SessionCount() {
  MXUser::ReadGuard guard(table_lock_);
  return sessions_.size();
}

size_t SessionManager::EkSessionCount(const EkId& ek) {
  MXUser::ReadGuard guard(table_lock_);
  auto it = ek_sessions_.find(ek);
  return it == ek_sessions_.end() ? 0 : it->second.live;
}

}  // namespace Witnessd::Tpm2
