// The platform audit log. Entries are written as JSON lines, one per entry,
// appended to /var/log/quarro/witnessd/audit.log under the sysroot:
//   {"time":"2026-11-22T08:00:00Z","eventID":"api.call","subject":"alice",
//    "object":"com.quarro.hyv.attestation.status.get","result":true,
//    "items":{"reason":"..."}}
// "items" is present only when the entry has extra items.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

inline constexpr const char* kQrwAuditLogPath = "/var/log/quarro/witnessd/audit.log";

struct QrwAuditItem {
  const char* name;
  const char* value;
};

// QrwAudit_LogList appends one entry. Returns false when the log cannot be
// opened or written (logged at error level, at most one such line a second);
// the caller's operation goes on.
bool QrwAudit_LogList(const char* event_id, const char* subject, const char* object, bool success,
                      const QrwAuditItem* items, size_t num_items);

// QrwAudit_SetLogPath replaces the audit log's path (tests); an empty path
// restores the default under the sysroot.
void QrwAudit_SetLogPath(const std::string& path);

// QrwAuditClock returns the current time in whole seconds since the Unix epoch.
using QrwAuditClock = std::function<int64_t()>;

// QrwAudit_SetClock replaces the clock that paces the audit log's error lines
// (tests); null restores the system clock.
void QrwAudit_SetClock(QrwAuditClock clock);

// The most bytes of a caller's text an entry carries.
inline constexpr size_t kQrwAuditMaxTextBytes = 128;
// What precedes a subject that nobody verified, such as the "sub" of a refused
// token.
inline constexpr const char* kQrwAuditUnverifiedPrefix = "unverified:";

// QrwAudit_SanitizeText returns |text| as an entry may carry it: at most
// |max_bytes| bytes (at least 3), valid UTF-8, and nothing that could hide or
// fake other text when a person reads the log. Each character becomes:
//   - control characters (U+0000-U+001F, U+007F-U+009F), the line and
//     paragraph separators and the bidirectional formatting marks: "\u" and
//     four lowercase hex digits, so a newline becomes the six characters
//     \u000a;
//   - a backslash: two backslashes, so an escape above is never ambiguous;
//   - a byte that does not start a valid UTF-8 sequence: "\x" and two
//     lowercase hex digits;
//   - anything else: itself, a multi-byte sequence whole.
// A text that does not fit is cut after the last whole character that leaves
// room for "...", which is appended; neither a UTF-8 sequence nor an escape is
// ever split.
std::string QrwAudit_SanitizeText(const std::string& text, size_t max_bytes = kQrwAuditMaxTextBytes);

// QrwAudit_UnverifiedSubject returns the subject of an entry about |claim|, a
// subject nobody verified: kQrwAuditUnverifiedPrefix and the sanitized claim.
// An empty claim stays empty (the entry has no subject).
std::string QrwAudit_UnverifiedSubject(const std::string& claim);

// QrwAuditRateLimiter admits at most |per_second| events in each second of its
// clock and counts the others. Thread-safe.
class QrwAuditRateLimiter {
 public:
  // Suppressed events of one second, not yet reported.
  struct Suppressed {
    uint64_t count = 0;  // 0: nothing to report
    int64_t second = 0;  // the second in which they were suppressed
  };
  struct Decision {
    bool admit = false;
    // Events suppressed in an earlier second: the caller reports them before
    // this event. Each suppressed event is handed out once.
    Suppressed earlier;
  };

  // A null |clock| is the system clock.
  explicit QrwAuditRateLimiter(uint32_t per_second, QrwAuditClock clock = nullptr);

  // Admit counts one event.
  Decision Admit();
  // TakeSuppressed hands out the events suppressed in a second that has
  // ended; with |all| also those of the current second (at shutdown).
  Suppressed TakeSuppressed(bool all);

 private:
  // Moves to the clock's current second; returns what the second left behind
  // when it has changed. Caller holds |mutex_|.
  Suppressed Advance();

  const uint32_t per_second_;
  const QrwAuditClock clock_;
  std::mutex mutex_;
  int64_t second_ = INT64_MIN;
  uint32_t admitted_ = 0;
  uint64_t suppressed_ = 0;
};

// The event of the entry that reports suppressed refusal entries; its items
// are "count" (how many) and "second" (when, in the entries' time format).
inline constexpr const char* kQrwAuditSuppressedEvent = "audit.entries.suppressed";

// QrwAuditRefusalLog writes the entries of refused calls (authentication and
// authorization failures), which anyone can cause at any rate: at most
// kMaxEntriesPerSecond a second. The others are counted and reported by one
// kQrwAuditSuppressedEvent entry (subject "witnessd", object "hyv") at the
// first write or Flush after their second has ended, or when the log is
// destroyed.
class QrwAuditRefusalLog {
 public:
  static constexpr uint32_t kMaxEntriesPerSecond = 10;

  // A null |clock| is the system clock.
  explicit QrwAuditRefusalLog(QrwAuditClock clock = nullptr);
  ~QrwAuditRefusalLog();
  QrwAuditRefusalLog(const QrwAuditRefusalLog&) = delete;
  QrwAuditRefusalLog& operator=(const QrwAuditRefusalLog&) = delete;

  // LogList writes one refusal entry as QrwAudit_LogList does. Returns false
  // when the entry was suppressed or could not be written.
  bool LogList(const char* event_id, const char* subject, const char* object, bool success, const QrwAuditItem* items,
               size_t num_items);
  // Flush reports the entries suppressed in seconds that have ended.
  void Flush();

 private:
  void Report(const QrwAuditRateLimiter::Suppressed& suppressed);

  QrwAuditRateLimiter limiter_;
};
