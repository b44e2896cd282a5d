// Several hosts with real swtpm TPMs attest at once, by EK key and by EK
// certificate, while strangers present the same (public) certificates and
// an administrator creates and deletes EKs and CA chains and switches both
// TPM settings. Built with ThreadSanitizer (scripts/test.sh
// --tsan), a data race the daemon reports fails the test; in every build the
// daemon stays up and, once the configuration stops changing, every host
// attests.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/ssl/TestCerts.h"
#include "tests/support/ApiClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/SwtpmProcess.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/Agent.h"

namespace Witnessd::Testing {
namespace {

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kBaseImages = "com.quarro.hyv.attestation.os.hyv.base_images";
constexpr const char* kSettings = "com.quarro.hyv.attestation.tpm2.settings";
constexpr const char* kEks = "com.quarro.hyv.attestation.tpm2.endorsement_keys";
constexpr const char* kCas = "com.quarro.hyv.attestation.tpm2.ca_certificates";
constexpr int kHosts = 6;
constexpr int kAttestationsPerHost = 3;

struct Host {
  std::unique_ptr<SwtpmProcess> swtpm;
  std::unique_ptr<Agent::HostTpm> tpm;
  std::string ek_pem;
  std::string certificate_pem;
  bool by_certificate = false;
};

class ConcurrentAttestation : public ::testing::Test {
 protected:
  void SetUp() override {
    sysroot_ = MakeTempDir("witnessd-concurrent");
    PrepareSysroot(sysroot_);
    token_ = InstallTrustedIssuer(sysroot_);
    imgdb_ = std::make_unique<ImgdbFixture>(sysroot_);
  }

  void TearDown() override {
    admin_.reset();
    daemon_.reset();
    hosts_.clear();
    std::filesystem::remove_all(sysroot_);
  }

  void Invoke(const char* service, const char* operation, const nlohmann::json& input) {
    ApiReply r = admin_->Invoke(service, operation, input);
    ASSERT_TRUE(r.ok) << service << "." << operation << ": " << r.raw;
  }

  // Trust declares every host's EK key and CA chain, and the settings.
  void Trust(bool require_eks, bool require_validation) {
    for (int i = 0; i < kHosts; ++i) {
      admin_->Invoke(kEks, "delete", {{"name", "host" + std::to_string(i)}});
      Invoke(kEks, "create", {{"name", "host" + std::to_string(i)}, {"public_key", hosts_[i].ek_pem}});
      admin_->Invoke(kCas, "delete", {{"name", "ca" + std::to_string(i)}});
      Invoke(kCas, "create", {{"name", "ca" + std::to_string(i)},
                              {"certificates", {hosts_[i].swtpm->RootCaPem(), hosts_[i].swtpm->IssuerCaPem()}}});
    }
    Invoke(kSettings, "update",
           {{"require_endorsement_keys", require_eks}, {"require_certificate_validation", require_validation}});
  }

  std::string sysroot_;
  std::string token_;
  std::unique_ptr<ImgdbFixture> imgdb_;
  std::vector<Host> hosts_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::unique_ptr<ApiClient> admin_;
};

TEST_F(ConcurrentAttestation, HostsAttestWhileTheAdministratorChangesTrust) {
  for (int i = 0; i < kHosts; ++i) {
    Host host;
    host.swtpm = std::make_unique<SwtpmProcess>();
    ASSERT_TRUE(host.swtpm->Setup()) << host.swtpm->SetupLog();
    ASSERT_TRUE(host.swtpm->Start()) << host.swtpm->SetupLog();
    std::string error;
    host.tpm = Agent::OpenSwtpmHost(host.swtpm->Port(), &error);
    ASSERT_NE(nullptr, host.tpm) << error;
    ASSERT_TRUE(host.tpm->Boot()) << host.tpm->LastError();
    Agent::Bytes ek;
    ASSERT_TRUE(host.tpm->EkPublic(&ek)) << host.tpm->LastError();
    ASSERT_TRUE(Agent::EkPublicPem(ek, &host.ek_pem));
    ASSERT_TRUE(host.tpm->EkCertificatePem(&host.certificate_pem)) << host.tpm->LastError();
    host.by_certificate = i % 2 == 1;
    hosts_.push_back(std::move(host));
  }
  daemon_ = std::make_unique<DaemonProcess>(sysroot_, FreePort());
  ASSERT_TRUE(daemon_->Start());
  ASSERT_TRUE(daemon_->WaitForLog(kServing, std::chrono::seconds(120))) << daemon_->Log();
  admin_ = std::make_unique<ApiClient>(daemon_->Port(), token_);
  std::string flags = Agent::ImageDatabaseFlags(Agent::BootPlan{});
  Invoke(kBaseImages, "import", {{"imgdb", ApiClient::Base64(imgdb_->Make(flags))}});
  Trust(true, false);

  std::atomic<bool> hosts_done{false};
  std::atomic<int> attested{0};
  std::atomic<int> refused{0};
  std::vector<std::string> failures(kHosts);
  std::vector<std::thread> threads;
  for (int i = 0; i < kHosts; ++i) {
    threads.emplace_back([&, i] {
      Agent::AttestOptions options;
      options.use_certificate = hosts_[i].by_certificate;
      for (int n = 0; n < kAttestationsPerHost; ++n) {
        Agent::AttestResult r = Agent::Attest(hosts_[i].tpm.get(), "127.0.0.1", daemon_->Port(), options);
        if (r.ok) {
          ++attested;
        } else if (!r.error_id.empty()) {
          ++refused;  // the trust changed under it: a report error, as it should be
        } else {
          failures[i] += r.failure + "\n";
        }
      }
    });
  }
  // Strangers, meanwhile, open sessions with the hosts' certificates and
  // drop them at their next call, one at a time each: the hosts' places
  // stay free, but every certificate is checked on several threads at once.
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      ApiClient stranger(daemon_->Port(), "");
      for (int n = t; !hosts_done; ++n) {
        nlohmann::json input = {
            {"request",
             {{"type", "TPM2"},
              {"tpm2",
               {{"document_types", {"KMS_AUTH_JWT"}},
                {"contexts", nlohmann::json::array()},
                {"ek", {{"certificate", hosts_[n % kHosts].certificate_pem}}}}}}}};
        ApiReply r = stranger.Invoke("com.quarro.hyv.attestation.report", "create", input);
        if (r.ok) {
          input["request"]["tpm2"]["contexts"] = r.output["contexts"];
          stranger.Invoke("com.quarro.hyv.attestation.report", "create", input);
        }
      }
    });
  }
  // The administrator, meanwhile: settings switched, a host's EK and CA
  // chain deleted and declared again, other EKs and chains come and go.
  ApiClient churn(daemon_->Port(), token_);
  TestKey extra_key = MakeKey(2048);
  TestPki extra_pki;
  int rounds = 0;
  std::thread admin([&] {
    const std::pair<bool, bool> kSettingsCycle[] = {{true, true}, {false, true}, {true, false}};
    for (; !hosts_done; ++rounds) {
      auto [eks, certs] = kSettingsCycle[rounds % 3];
      churn.Invoke(kSettings, "update", {{"require_endorsement_keys", eks}, {"require_certificate_validation", certs}});
      std::string host = std::to_string(rounds % kHosts);
      churn.Invoke(kEks, "delete", {{"name", "host" + host}});
      churn.Invoke(kCas, "delete", {{"name", "ca" + host}});
      churn.Invoke(kEks, "create", {{"name", "extra"}, {"public_key", extra_key.public_pem}});
      churn.Invoke(kCas, "create", {{"name", "extra"}, {"certificates", {extra_pki.root.pem}}});
      churn.Invoke(kEks, "create", {{"name", "host" + host}, {"public_key", hosts_[rounds % kHosts].ek_pem}});
      churn.Invoke(kCas, "create", {{"name", "ca" + host},
                                    {"certificates", {hosts_[rounds % kHosts].swtpm->RootCaPem(),
                                                      hosts_[rounds % kHosts].swtpm->IssuerCaPem()}}});
      churn.Invoke(kEks, "delete", {{"name", "extra"}});
      churn.Invoke(kCas, "delete", {{"name", "extra"}});
    }
  });
  for (int i = 0; i < kHosts; ++i) {
    threads[i].join();
  }
  hosts_done = true;
  for (size_t i = kHosts; i < threads.size(); ++i) {
    threads[i].join();
  }
  admin.join();
  for (int i = 0; i < kHosts; ++i) {
    EXPECT_EQ("", failures[i]) << "host " << i;
  }
  EXPECT_EQ(kHosts * kAttestationsPerHost, attested + refused);
  EXPECT_GT(rounds, 0);

  // Settled again: every host attests, by key and by certificate.
  Trust(true, false);
  for (int i = 0; i < kHosts; ++i) {
    Agent::AttestOptions options;
    options.use_certificate = hosts_[i].by_certificate;
    Agent::AttestResult r = Agent::Attest(hosts_[i].tpm.get(), "127.0.0.1", daemon_->Port(), options);
    EXPECT_TRUE(r.ok) << "host " << i << ": " << r.error_id << r.failure;
  }
  EXPECT_TRUE(daemon_->Running());
  EXPECT_EQ(0, daemon_->CountInLog("ThreadSanitizer")) << daemon_->Log();
}

}  // namespace
}  // namespace Witnessd::Testing
