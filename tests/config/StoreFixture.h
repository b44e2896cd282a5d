// A fresh configuration store per test, in its own temporary directory.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "config/Configuration.h"

namespace Witnessd::Testing {

class StoreFixture : public testing::Test {
 protected:
  StoreFixture() : dir_(MakeDir()), store_(HyvConfig::HyvConfigStore::Open(dir_ + "/configstore.db")) {}
  ~StoreFixture() override {
    store_.reset();
    std::filesystem::remove_all(dir_);
  }

  std::string dir_;
  Config::Store store_;

 private:
  static std::string MakeDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "witnessd-config-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
  }
};

}  // namespace Witnessd::Testing
