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
  struct tm tm;
  gmtime_r(&tv.tv_sec, &tm);
  char line[sizeof(message) + 128];
  int head = snprintf(line, sizeof(line), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ %s [%ld] ",
                      tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                      tm.tm_sec, static_cast<int>(tv.tv_usec / 1000), LevelName(level), ThreadId());
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
