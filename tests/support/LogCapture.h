// Capture runs |fn| and returns what it logged: the platform log writes to
// standard error.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace Witnessd::Testing {

inline std::string Capture(const std::function<void()>& fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

}  // namespace Witnessd::Testing
