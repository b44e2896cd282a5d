// API traffic and error trackers owned by the daemon for its whole run.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Hearth.h"

namespace Orm::Common::HearthLumen {

// TrafficTracker counts API requests and responses.
class TrafficTracker {
 public:
  explicit TrafficTracker(std::shared_ptr<Hearth::Service::Logger> logger) : logger_(std::move(logger)) {}
  void CountRequest() { requests_.fetch_add(1, std::memory_order_relaxed); }
  uint64_t Requests() const { return requests_.load(std::memory_order_relaxed); }

 private:
  std::shared_ptr<Hearth::Service::Logger> logger_;
  std::atomic<uint64_t> requests_{0};
};

// ErrorsTracker counts API errors by category: "service", "resource", "others".
class ErrorsTracker {
 public:
  explicit ErrorsTracker(std::shared_ptr<Hearth::Service::Logger> logger) : logger_(std::move(logger)) {}
  void Count(const std::string& category);
  uint64_t CountOf(const std::string& category) const;
  void Stop() { stopped_.store(true); }

 private:
  std::shared_ptr<Hearth::Service::Logger> logger_;
  std::atomic<uint64_t> service_{0};
  std::atomic<uint64_t> resource_{0};
  std::atomic<uint64_t> others_{0};
  std::atomic<bool> stopped_{false};
};

inline void ErrorsTracker::Count(const std::string& category) {
  if (stopped_.load()) {
    return;
  }
  if (category == "service") {
    ++service_;
  } else if (category == "resource") {
    ++resource_;
  } else {
    ++others_;
  }
}

inline uint64_t ErrorsTracker::CountOf(const std::string& category) const {
  if (category == "service") {
    return service_.load();
  }
  if (category == "resource") {
    return resource_.load();
  }
  return others_.load();
}

}  // namespace Orm::Common::HearthLumen
