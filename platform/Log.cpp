#include "platform/Log.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

std::atomic<int> g_max_level{kLogInfo};

const char* LevelName(int level) {
  static const char* const kNames[] = {"panic",   "panic", "error",   "warning",
                                       "notice",  "info",  "verbose", "trivia"};
  if (level < 0) {
    return "panic";
  }
  if (level > kLogTrivia) {
    return "trivia";
  }
  return kNames[level];
}

struct UtcTime {
  long long year;
  unsigned month, day;
  int hour, minute, second;
};

// UtcOf splits |seconds| since the epoch into the UTC calendar date and time
// by arithmetic alone: gmtime_r takes the C library's time zone lock on
// every call, which every logging thread would contend for.
UtcTime UtcOf(time_t seconds) {
  long long days = seconds / 86400;
  long long rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  // Days to civil date, in eras of 400 years from 0000-03-01.
  days += 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const long long day_of_era = days - era * 146097;
  const long long year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const long long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const long long month_index = (5 * day_of_year + 2) / 153;  // from March
  UtcTime t;
  t.day = static_cast<unsigned>(day_of_year - (153 * month_index + 2) / 5 + 1);
  t.month = static_cast<unsigned>(month_index < 10 ? month_index + 3 : month_index - 9);
  t.year = year_of_era + era * 400 + (t.month <= 2 ? 1 : 0);
  t.hour = static_cast<int>(rest / 3600);
  t.minute = static_cast<int>(rest / 60 % 60);
  t.second = static_cast<int>(rest % 60);
  return t;
}

// The calling thread's id, asked of the kernel once per thread.
long ThreadId() {
  thread_local const long id = static_cast<long>(syscall(SYS_gettid));
  return id;
}

// The lines a LogLineBatch of this thread gathers, null while none lives.
thread_local std::string* t_batch = nullptr;

// A batch writes what it holds once it reaches this size, so a long burst
// never holds more.
constexpr size_t kBatchFlushBytes = 64 * 1024;

void WriteAll(const char* p, size_t total) {
  while (total > 0) {
    ssize_t w = write(STDERR_FILENO, p, total);
    if (w <= 0) {
      break;
    }
    p += w;
    total -= static_cast<size_t>(w);
  }
}

// Formats the whole line first and writes it with one write(2), so lines from
// different threads never interleave; inside a batch, the line waits for the
// batch's write.
void WriteLine(int level, const char* fmt, va_list args) {
  char message[8192];
  int n = vsnprintf(message, sizeof(message), fmt, args);
  if (n < 0) {
    n = 0;
    message[0] = '\0';
  }
  size_t len = static_cast<size_t>(n) < sizeof(message) ? static_cast<size_t>(n) : sizeof(message) - 1;
  while (len > 0 && message[len - 1] == '\n') {
    message[--len] = '\0';
  }

  struct timeval tv;
  gettimeofday(&tv, nullptr);
  UtcTime t = UtcOf(tv.tv_sec);
  char line[sizeof(message) + 128];
  int head = snprintf(line, sizeof(line), "%04lld-%02u-%02uT%02d:%02d:%02d.%03dZ %s [%ld] ", t.year, t.month,
                      t.day, t.hour, t.minute, t.second, static_cast<int>(tv.tv_usec / 1000), LevelName(level),
                      ThreadId());
  size_t total = static_cast<size_t>(head);
  for (size_t i = 0; i < len && total < sizeof(line) - 1; ++i) {
    line[total++] = message[i];
  }
  line[total++] = '\n';
  if (t_batch != nullptr && level != kLogPanic) {
    t_batch->append(line, total);
    if (t_batch->size() >= kBatchFlushBytes) {
      WriteAll(t_batch->data(), t_batch->size());
      t_batch->clear();
    }
    return;
  }
  if (t_batch != nullptr && !t_batch->empty()) {
    // A panic ends the process: what the batch holds goes first.
    WriteAll(t_batch->data(), t_batch->size());
    t_batch->clear();
  }
  WriteAll(line, total);
}

}  // namespace

void Log_LevelV(int level, const char* fmt, va_list args) {
  if (!Log_IsEnabled(level)) {
    return;
  }
  WriteLine(level, fmt, args);
}

void Log_Level(int level, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Log_LevelV(level, fmt, args);
  va_end(args);
}

bool Log_IsEnabled(int level) {
  return level <= g_max_level.load(std::memory_order_relaxed);
}

void Log_SetMaxLevel(int level) {
  g_max_level.store(level, std::memory_order_relaxed);
}

int Log_GetMaxLevel() {
  return g_max_level.load(std::memory_order_relaxed);
}

std::optional<int> Log_LevelFromName(const std::string& name) {
  static const struct {
    const char* name;
    int level;
  } kLevels[] = {{"error", kLogError},     {"warning", kLogWarning}, {"info", kLogInfo},
                 {"verbose", kLogVerbose}, {"trivia", kLogTrivia}};
  for (const auto& l : kLevels) {
    if (name == l.name) {
      return l.level;
    }
  }
  return std::nullopt;
}

void Warning(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  Log_LevelV(kLogWarning, fmt, args);
  va_end(args);
}

void Panic(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  WriteLine(kLogPanic, fmt, args);
  va_end(args);
  abort();
}

Hearth::LogLineBatch::LogLineBatch() {
  if (t_batch == nullptr) {
    t_batch = &lines_;
  }
}

Hearth::LogLineBatch::~LogLineBatch() {
  if (t_batch != &lines_) {
    return;  // an outer batch of this thread writes the lines
  }
  t_batch = nullptr;
  WriteAll(lines_.data(), lines_.size());
}
