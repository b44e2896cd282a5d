#include "api/log/LumenLoggerWrapper.h"

#include "platform/Assert.h"
#include "platform/Log.h"

namespace Witnessd::AttestApi {
namespace {

// Kept with the historical module path and line so assertion messages stay as
// operators know them.
constexpr const char* kSourcePath = "apps/witnessd/include/logger";
constexpr int kBadLevelLine = 123;

// Framework level -> platform level; the gap between 2 and 3 is intended.
constexpr int kLevelMap[] = {7, 6, 5, 3, 2, 1};

}  // namespace

int MapLumenLevel(int lumen_level) {
  if (lumen_level < 0 || lumen_level > 5) {
    Panic("NOT_REACHED %s:%d\n", kSourcePath, kBadLevelLine);
  }
  return kLevelMap[lumen_level];
}

LumenLoggerWrapper::Record::~Record() {
  std::string text = stream_.str();
  log_(level_, "%s", text.c_str());
}

LumenLoggerWrapper::LumenLoggerWrapper(LogFunction log) : log_(log) {}

std::unique_ptr<Lumen::Log::LogRecord> LumenLoggerWrapper::CreateRecord(
    int level, const Lumen::Log::SourceContext&) {
  int platform_level = MapLumenLevel(level);
  if (!Log_IsEnabled(platform_level)) {
    return nullptr;
  }
  return std::make_unique<Record>(platform_level, log_);
}

}  // namespace Witnessd::AttestApi
