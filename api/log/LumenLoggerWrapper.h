// Adapts the API framework's logger to the platform log.
#pragma once

#include <memory>
#include <sstream>

#include "platform/lumen/Log.h"

namespace Witnessd::AttestApi {

// The platform log function's shape (Log_Level).
using LogFunction = void (*)(int level, const char* fmt, ...);

// MapLumenLevel maps a framework level 0-5 to the platform level
// (0->7, 1->6, 2->5, 3->3, 4->2, 5->1). Platform level 4 is never produced.
int MapLumenLevel(int lumen_level);

class LumenLoggerWrapper : public Lumen::Log::Logger {
 public:
  // Record is one pending line; its destructor emits the text as a "%s"
  // argument so a '%' in a message is never read as a directive.
  class Record : public Lumen::Log::LogRecord {
   public:
    Record(int level, LogFunction log) : level_(level), log_(log) {}
    std::ostream& Stream() override { return stream_; }
    ~Record() override;

   private:
    int level_;
    LogFunction log_;
    std::ostringstream stream_;
  };

  explicit LumenLoggerWrapper(LogFunction log);
  // CreateRecord returns nullptr when the mapped level is disabled, so the
  // framework formats nothing. A level above 5 is a programming error.
  std::unique_ptr<Lumen::Log::LogRecord> CreateRecord(int level,
                                                      const Lumen::Log::SourceContext& ctx) override;

 private:
  LogFunction log_;
};

}  // namespace Witnessd::AttestApi
