// What GET /healthz answers: whether the daemon can serve. It serves when it
// answers at all and can read its configuration store and sign tokens.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "config/Configuration.h"
#include "config/SigningKey.h"

namespace Witnessd {

class HealthCheck {
 public:
  HealthCheck(Config::Store store, const Config::SigningKeys& keys) : store_(std::move(store)), keys_(keys) {}

  // Problem names why the daemon cannot serve, empty when it can. The store
  // is read at most once a second, however many callers ask: the answer is
  // public and must not become a way to load the store.
  std::string Problem();

 private:
  Config::Store store_;
  const Config::SigningKeys& keys_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point checked_;  // guarded by mutex_
  bool ever_checked_ = false;                      // guarded by mutex_
  std::string store_problem_;                      // guarded by mutex_
};

}  // namespace Witnessd
