// Platform log: one line per call on standard error, numeric levels where a
// lower number is more severe.
#pragma once

#include <cstdarg>
#include <optional>
#include <string>

inline constexpr int kLogPanic = 1;
inline constexpr int kLogError = 2;
inline constexpr int kLogWarning = 3;
inline constexpr int kLogNotice = 4;
inline constexpr int kLogInfo = 5;
inline constexpr int kLogVerbose = 6;
inline constexpr int kLogTrivia = 7;

// Log_Level writes one line "<UTC time> <level name> [<thread id>] <message>"
// when |level| is enabled. A trailing newline of the message is dropped.
void Log_Level(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void Log_LevelV(int level, const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));

// Log_IsEnabled tells whether a line at |level| would be written.
bool Log_IsEnabled(int level);

// Log_SetMaxLevel makes |level| the most verbose level written.
void Log_SetMaxLevel(int level);
int Log_GetMaxLevel();

// Log_LevelFromName maps "error", "warning", "info", "verbose" and "trivia" to
// their numbers; any other text gives nothing.
std::optional<int> Log_LevelFromName(const std::string& name);

// Warning logs at the warning level.
void Warning(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Panic writes the message at the panic level and aborts the process.
[[noreturn]] void Panic(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

namespace Hearth {

// LogLineBatch gathers the lines its thread logs while it lives and writes
// them with one write(2) when it ends, each line with its own time: for the
// burst of lines one short computation logs (the checks of one event log),
// which would otherwise cost one system call each. A nested batch adds to
// the outer one; a panic writes what the batch holds before its own line.
class LogLineBatch {
 public:
  LogLineBatch();
  ~LogLineBatch();
  LogLineBatch(const LogLineBatch&) = delete;
  LogLineBatch& operator=(const LogLineBatch&) = delete;

 private:
  std::string lines_;
};

}  // namespace Hearth
