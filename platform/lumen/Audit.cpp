#include "platform/lumen/Audit.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <mutex>

#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/System.h"

namespace {

int64_t SystemSeconds() {
  int64_t usec = 0;
  Hostinfo_GetTimeOfDay(&usec);
  return usec / 1000000;
}

std::string TimeText(int64_t seconds) {
  time_t secs = static_cast<time_t>(seconds);
  struct tm tm_utc;
  gmtime_r(&secs, &tm_utc);
  char buf[32];
  strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm_utc);
  return buf;
}

std::string NowText() {
  return TimeText(SystemSeconds());
}

std::mutex g_mutex;
std::string g_path_override;
QrwAuditClock g_clock;  // null: the system clock
// A log that cannot be opened or written fails every entry: one error line a
// second tells the operator without flooding the daemon's own log. Its clock
// is read with g_mutex held.
QrwAuditRateLimiter g_error_lines(1, [] { return g_clock ? g_clock() : SystemSeconds(); });

// Unicode code points shown as escapes: controls, and the separators and
// bidirectional formatting marks that can move or hide the text around them.
bool IsEscapedCodePoint(uint32_t cp) {
  return cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || cp == 0x061c || cp == 0x200e || cp == 0x200f ||
         (cp >= 0x2028 && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069);
}

// Utf8Length returns the length of the valid UTF-8 sequence at |text|[|at|]
// and its code point, or 0 when none starts there (stray continuation bytes,
// overlong forms, surrogates, values past U+10FFFF, truncated sequences).
size_t Utf8Length(const std::string& text, size_t at, uint32_t* out_cp) {
  auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  uint8_t lead = byte(at);
  size_t len;
  uint32_t cp;
  uint8_t low = 0x80, high = 0xbf;  // the range of the second byte
  if (lead < 0x80) {
    *out_cp = lead;
    return 1;
  } else if (lead >= 0xc2 && lead <= 0xdf) {
    len = 2;
    cp = lead & 0x1f;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    len = 3;
    cp = lead & 0x0f;
    low = lead == 0xe0 ? 0xa0 : 0x80;
    high = lead == 0xed ? 0x9f : 0xbf;
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    len = 4;
    cp = lead & 0x07;
    low = lead == 0xf0 ? 0x90 : 0x80;
    high = lead == 0xf4 ? 0x8f : 0xbf;
  } else {
    return 0;
  }
  if (text.size() - at < len) {
    return 0;
  }
  for (size_t i = 1; i < len; ++i) {
    uint8_t b = byte(at + i);
    if (b < (i == 1 ? low : 0x80) || b > (i == 1 ? high : 0xbf)) {
      return 0;
    }
    cp = (cp << 6) | (b & 0x3f);
  }
  *out_cp = cp;
  return len;
}

}  // namespace

bool QrwAudit_LogList(const char* event_id, const char* subject, const char* object, bool success,
                      const QrwAuditItem* items, size_t num_items) {
  nlohmann::json entry = {{"time", NowText()},
                          {"eventID", event_id},
                          {"subject", subject},
                          {"object", object},
                          {"result", success}};
  if (num_items > 0) {
    nlohmann::json extra = nlohmann::json::object();
    for (size_t i = 0; i < num_items; ++i) {
      extra[items[i].name] = items[i].value;
    }
    entry["items"] = std::move(extra);
  }
  std::string line = entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";

  std::lock_guard<std::mutex> lock(g_mutex);
  std::string path = g_path_override.empty() ? Hearth::SysrootPath(kQrwAuditLogPath) : g_path_override;
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (g_error_lines.Admit().admit) {
      Log_Level(kLogError, "Cannot open audit log %s\n", path.c_str());
    }
    return false;
  }
  // One write per line keeps each entry whole even if another process
  // appends to the same file.
  ssize_t n = write(fd, line.data(), line.size());
  close(fd);
  if (n != static_cast<ssize_t>(line.size())) {
    if (g_error_lines.Admit().admit) {
      Log_Level(kLogError, "Cannot write audit log %s\n", path.c_str());
    }
    return false;
  }
  return true;
}

void QrwAudit_SetLogPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_path_override = path;
}

void QrwAudit_SetClock(QrwAuditClock clock) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_clock = std::move(clock);
}

std::string QrwAudit_SanitizeText(const std::string& text, size_t max_bytes) {
  static constexpr char kCut[] = "...";
  const size_t room_with_cut = max_bytes - (sizeof(kCut) - 1);
  std::string out;
  size_t cut_at = 0;  // the longest whole prefix of |out| that leaves room for kCut
  char escape[8];
  for (size_t at = 0; at < text.size();) {
    uint32_t cp = 0;
    size_t len = Utf8Length(text, at, &cp);
    const char* piece;
    size_t piece_len;
    if (len == 0) {
      snprintf(escape, sizeof(escape), "\\x%02x", static_cast<uint8_t>(text[at]));
      piece = escape;
      piece_len = 4;
      len = 1;
    } else if (IsEscapedCodePoint(cp)) {
      snprintf(escape, sizeof(escape), "\\u%04x", cp);
      piece = escape;
      piece_len = 6;
    } else if (cp == '\\') {
      piece = "\\\\";
      piece_len = 2;
    } else {
      piece = text.data() + at;
      piece_len = len;
    }
    if (out.size() + piece_len > max_bytes) {
      out.resize(cut_at);
      return out + kCut;
    }
    out.append(piece, piece_len);
    if (out.size() <= room_with_cut) {
      cut_at = out.size();
    }
    at += len;
  }
  return out;
}

std::string QrwAudit_UnverifiedSubject(const std::string& claim) {
  return claim.empty() ? std::string() : kQrwAuditUnverifiedPrefix + QrwAudit_SanitizeText(claim);
}

QrwAuditRateLimiter::QrwAuditRateLimiter(uint32_t per_second, QrwAuditClock clock)
    : per_second_(per_second), clock_(clock ? std::move(clock) : QrwAuditClock(SystemSeconds)) {}

QrwAuditRateLimiter::Suppressed QrwAuditRateLimiter::Advance() {
  // Any change of second opens a new one, so a clock set back cannot keep
  // the old second's count from being handed out.
  int64_t now = clock_();
  if (now == second_) {
    return {};
  }
  Suppressed left{suppressed_, second_};
  second_ = now;
  admitted_ = 0;
  suppressed_ = 0;
  return left;
}

QrwAuditRateLimiter::Decision QrwAuditRateLimiter::Admit() {
  std::lock_guard<std::mutex> lock(mutex_);
  Decision d;
  d.earlier = Advance();
  if (admitted_ < per_second_) {
    ++admitted_;
    d.admit = true;
  } else {
    ++suppressed_;
  }
  return d;
}

QrwAuditRateLimiter::Suppressed QrwAuditRateLimiter::TakeSuppressed(bool all) {
  std::lock_guard<std::mutex> lock(mutex_);
  Suppressed s = Advance();
  if (s.count == 0 && all) {
    s = {suppressed_, second_};
    suppressed_ = 0;
  }
  return s;
}

QrwAuditRefusalLog::QrwAuditRefusalLog(QrwAuditClock clock) : limiter_(kMaxEntriesPerSecond, std::move(clock)) {}

QrwAuditRefusalLog::~QrwAuditRefusalLog() {
  Report(limiter_.TakeSuppressed(true));
}

bool QrwAuditRefusalLog::LogList(const char* event_id, const char* subject, const char* object, bool success,
                                 const QrwAuditItem* items, size_t num_items) {
  QrwAuditRateLimiter::Decision d = limiter_.Admit();
  Report(d.earlier);
  return d.admit && QrwAudit_LogList(event_id, subject, object, success, items, num_items);
}

void QrwAuditRefusalLog::Flush() {
  Report(limiter_.TakeSuppressed(false));
}

void QrwAuditRefusalLog::Report(const QrwAuditRateLimiter::Suppressed& suppressed) {
  if (suppressed.count == 0) {
    return;
  }
  std::string count = std::to_string(suppressed.count);
  std::string second = TimeText(suppressed.second);
  QrwAuditItem items[] = {{"count", count.c_str()}, {"second", second.c_str()}};
  QrwAudit_LogList(kQrwAuditSuppressedEvent, "witnessd", "hyv", false, items, 2);
}
