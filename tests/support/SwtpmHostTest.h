// A test fixture whose tests play one attested host with a real swtpm: the
// TPM is manufactured once per suite, and every test starts from a power
// cycle with the TPM's EK public key at hand. Header-only: the support
// library does not link the agent.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/SwtpmProcess.h"
#include "tools/HostTpm.h"

namespace Witnessd::Testing {

class SwtpmHostTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    swtpm_ = new SwtpmProcess();
    ASSERT_TRUE(swtpm_->Setup()) << swtpm_->SetupLog();
    ASSERT_TRUE(swtpm_->Start()) << swtpm_->SetupLog();
  }
  static void TearDownTestSuite() {
    delete swtpm_;
    swtpm_ = nullptr;
  }

  void SetUp() override {
    ASSERT_NE(nullptr, swtpm_);
    std::string error;
    tpm_ = Agent::OpenSwtpmHost(swtpm_->Port(), &error);
    ASSERT_NE(nullptr, tpm_) << error;
    // A power cycle first: an earlier test may have left objects loaded.
    ASSERT_TRUE(tpm_->Boot()) << tpm_->LastError();
    std::vector<uint8_t> ek;
    ASSERT_TRUE(tpm_->EkPublic(&ek)) << tpm_->LastError();
    ASSERT_TRUE(Agent::EkPublicPem(ek, &ek_pem_));
  }

  static inline SwtpmProcess* swtpm_ = nullptr;
  std::unique_ptr<Agent::HostTpm> tpm_;
  std::string ek_pem_;  // the EK public key, PEM
};

}  // namespace Witnessd::Testing
