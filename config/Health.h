// Whether the daemon can serve, as GET /healthz tells load balancers and
// watchdogs: it can when it answers at all, can read its configuration
// store and has a key to sign tokens with.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "config/Configuration.h"
#include "config/SigningKey.h"

namespace Witnessd::Config {

class HealthCheck {
 public:
  // The store is read at most once per |recheck|, however many callers ask:
  // the answer is public and must not become a way to load the store.
  HealthCheck(Store store, const SigningKeys& keys,
              std::chrono::steady_clock::duration recheck = std::chrono::seconds(1))
      : store_(std::move(store)), keys_(keys), recheck_(recheck) {}

  // Problem names why the daemon cannot serve, empty when it can.
  std::string Problem();

 private:
  Store store_;
  const SigningKeys& keys_;
  const std::chrono::steady_clock::duration recheck_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point checked_;  // guarded by mutex_
  bool ever_checked_ = false;                      // guarded by mutex_
  std::string store_problem_;                      // guarded by mutex_
};

}  // namespace Witnessd::Config
