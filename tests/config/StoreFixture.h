// A fresh configuration store per test: a temporary sysroot holding the
// database, and the layer's in-memory state cleared.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <thread>

#include "config/Configuration.h"
#include "platform/configstore/ConfigStore.h"

namespace Witnessd::Testing {

class StoreFixture : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "witnessd-config-XXXXXX").string();
    sysroot_ = mkdtemp(pattern.data());
    setenv("WITNESSD_SYSROOT", sysroot_.c_str(), 1);
    HyvConfig::ConfigStore::Reset();
    Config::ResetConfigurationForTesting();
  }

  void TearDown() override {
    HyvConfig::ConfigStore::Reset();
    unsetenv("WITNESSD_SYSROOT");
    std::filesystem::remove_all(sysroot_);
  }

  static std::shared_ptr<HyvConfig::HyvConfigStore> Store() {
    return HyvConfig::ConfigStore::GetStore(HyvConfig::ConfigStore::sGlobalNamespace);
  }

  // Locks released: the calling thread holds neither, and another thread can
  // take both exclusively.
  static void ExpectLocksReleased() {
    EXPECT_FALSE(MXUser_IsCurThreadHoldingRWLock(Config::ConfigLock()));
    EXPECT_FALSE(MXUser_IsCurThreadHoldingRWLock(Config::EkMapLock()));
    std::thread([] {
      MXUser::WriteGuard config(Config::ConfigLock());
      MXUser::WriteGuard ek(Config::EkMapLock());
    }).join();
  }

  std::string sysroot_;
};

}  // namespace Witnessd::Testing
