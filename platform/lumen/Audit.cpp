#include "platform/lumen/Audit.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <mutex>

#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/System.h"

namespace {

std::mutex g_mutex;
std::string g_path_override;

std::string NowText() {
  int64_t usec = 0;
  Hostinfo_GetTimeOfDay(&usec);
  time_t secs = static_cast<time_t>(usec / 1000000);
  struct tm tm_utc;
  gmtime_r(&secs, &tm_utc);
  char buf[32];
  strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%SZ", &tm_utc);
  return buf;
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
    Log_Level(kLogError, "Cannot open audit log %s\n", path.c_str());
    return false;
  }
  // One write per line keeps each entry whole even if another process
  // appends to the same file.
  ssize_t n = write(fd, line.data(), line.size());
  close(fd);
  if (n != static_cast<ssize_t>(line.size())) {
    Log_Level(kLogError, "Cannot write audit log %s\n", path.c_str());
    return false;
  }
  return true;
}

void QrwAudit_SetLogPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_path_override = path;
}
