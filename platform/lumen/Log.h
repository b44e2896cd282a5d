// The API framework's logging interface: the framework asks its logger for a
// record per message, writes the text into the record's stream, and the
// record emits the line when it is destroyed.
#pragma once

#include <memory>
#include <ostream>

namespace Lumen::Log {

struct SourceContext {
  const char* file = "";
  int line = 0;
};

class LogRecord {
 public:
  virtual std::ostream& Stream() = 0;
  virtual ~LogRecord() = default;
};

class Logger {
 public:
  // CreateRecord returns nullptr when |level| is disabled; the caller then
  // skips formatting the message.
  virtual std::unique_ptr<LogRecord> CreateRecord(int level, const SourceContext& ctx) = 0;
  virtual ~Logger() = default;
};

}  // namespace Lumen::Log

// LUMEN_LOG(logger, level) << "text"; formats only when the level is enabled.
#define LUMEN_LOG(logger, level)                                                          \
  if (auto lumen_record_ = (logger).CreateRecord((level), {__FILE__, __LINE__}); !lumen_record_) { \
  } else                                                                                  \
    lumen_record_->Stream()
