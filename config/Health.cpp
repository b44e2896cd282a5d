#include "config/Health.h"

#include "platform/Log.h"

namespace Witnessd::Config {

std::string HealthCheck::Problem() {
  if (keys_.Current()->pkey == nullptr) {
    return "no usable report signing key";
  }
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  if (ever_checked_ && now - checked_ < recheck_) {
    return store_problem_;
  }
  ever_checked_ = true;
  checked_ = now;
  try {
    store_->GetObject(MakeId(kKeyCertificate));
    store_problem_.clear();
  } catch (const std::exception& e) {
    store_problem_ = std::string("configuration store unreadable: ") + e.what();
    Log_Level(kLogError, "Health check: %s\n", store_problem_.c_str());
  }
  return store_problem_;
}

}  // namespace Witnessd::Config
