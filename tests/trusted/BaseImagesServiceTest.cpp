// The base images service over the real API of a running daemon.
#include <gtest/gtest.h>

#include <filesystem>

#include "api/errors/ErrorCatalogue.h"
#include "tests/support/ApiClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/trusted/ImgdbFixture.h"

namespace Witnessd::Testing {
namespace {

namespace Errors = AttestApi::Errors;

constexpr const char* kService = "com.quarro.hyv.attestation.os.hyv.base_images";
constexpr const char* kVersion = "8.0.1-12345";
constexpr const char* kServing = "HTTP endpoint listening on TCP port";

class BaseImagesService : public ::testing::Test {
 protected:
  void SetUp() override {
    sysroot_ = MakeTempDir("witnessd-baseimages");
    PrepareSysroot(sysroot_);
    token_ = InstallTrustedIssuer(sysroot_);
    imgdb_ = std::make_unique<ImgdbFixture>(sysroot_);
    StartDaemon();
  }
  void TearDown() override {
    client_.reset();
    daemon_.reset();
    std::filesystem::remove_all(sysroot_);
  }

  void StartDaemon() {
    client_.reset();
    daemon_.reset();
    daemon_ = std::make_unique<DaemonProcess>(sysroot_, FreePort());
    ASSERT_TRUE(daemon_->Start());
    ASSERT_TRUE(daemon_->WaitForLog(kServing)) << daemon_->Log();
    client_ = std::make_unique<ApiClient>(daemon_->Port(), token_);
  }

  ApiReply Import(const std::vector<uint8_t>& imgdb) {
    return client_->Invoke(kService, "import", {{"imgdb", ApiClient::Base64(imgdb)}});
  }
  nlohmann::json List() {
    ApiReply r = client_->Invoke(kService, "list");
    EXPECT_TRUE(r.ok) << r.raw;
    return r.output;
  }

  std::string sysroot_;
  std::string token_;
  std::unique_ptr<ImgdbFixture> imgdb_;
  std::unique_ptr<DaemonProcess> daemon_;
  std::unique_ptr<ApiClient> client_;
};

TEST_F(BaseImagesService, ImportListGetDeleteAndRestart) {
  EXPECT_EQ(nlohmann::json::array(), List());
  ApiReply imported = Import(imgdb_->Make(""));
  ASSERT_TRUE(imported.ok) << imported.raw;
  EXPECT_EQ(kVersion, imported.output);

  const nlohmann::json listed = List();
  ASSERT_EQ(1u, listed.size());
  EXPECT_EQ(kVersion, listed[0]["version"]);
  EXPECT_EQ("HYVi 8.0.1-12345", listed[0]["name"]);
  EXPECT_TRUE(!listed[0].contains("last_attested_time") || listed[0]["last_attested_time"].is_null());

  ApiReply got = client_->Invoke(kService, "get", {{"version", kVersion}});
  ASSERT_TRUE(got.ok) << got.raw;
  EXPECT_EQ("HYVi 8.0.1-12345", got.output["name"]);
  ASSERT_EQ(2u, got.output["packages"].size());
  EXPECT_EQ("hyv-base", got.output["packages"][0]["name"]);
  EXPECT_EQ("8.0.1-12345-u1", got.output["packages"][1]["version"]);

  // The import is durable: a restarted daemon serves the same list.
  StartDaemon();
  EXPECT_EQ(listed, List());

  EXPECT_TRUE(client_->Invoke(kService, "delete", {{"version", kVersion}}).ok);
  EXPECT_EQ(nlohmann::json::array(), List());
}

TEST_F(BaseImagesService, RefusalsLeaveTheStoredImagesAlone) {
  ASSERT_TRUE(Import(imgdb_->Make("")).ok);
  const nlohmann::json before = List();
  const struct {
    const char* name;
    const char* operation;
    nlohmann::json input;
    const char* error_type;
    std::string message;  // empty: the error carries no message
    std::vector<std::string> args;
  } cases[] = {
      {"same version again", "import", {{"imgdb", ApiClient::Base64(imgdb_->Make("--kernel-digest " + std::string(64, 'e')))}},
       "ALREADY_EXISTS", Errors::kBaseImagesAlreadyExists, {kVersion}},
      {"empty imgdb", "import", {{"imgdb", ""}}, "INVALID_ARGUMENT", Errors::kBaseImagesInvalidArgument, {"imgdb"}},
      {"imgdb not base64", "import", {{"imgdb", "%%%"}}, "INVALID_ARGUMENT", "", {}},
      {"imgdb not gzip", "import", {{"imgdb", ApiClient::Base64(std::string("plain text"))}}, "ERROR", "", {}},
      {"signed by a partner only", "import",
       {{"imgdb", ApiClient::Base64(imgdb_->Make("--sign-base partner --version 9.0.0"))}}, "ERROR", "", {}},
      {"get empty version", "get", {{"version", ""}}, "INVALID_ARGUMENT", Errors::kBaseImagesInvalidArgument, {"version"}},
      {"get unknown version", "get", {{"version", "7.0.0"}}, "NOT_FOUND", "", {}},
      {"get version with a NUL", "get", {{"version", std::string(kVersion) + std::string(1, '\0')}}, "INVALID_ARGUMENT",
       "", {}},
      {"delete empty version", "delete", {{"version", ""}}, "INVALID_ARGUMENT", Errors::kBaseImagesInvalidArgument, {"version"}},
      {"delete unknown version", "delete", {{"version", "7.0.0"}}, "NOT_FOUND", "", {}},
      {"delete with a path", "delete", {{"version", "../8.0.1-12345"}}, "INVALID_ARGUMENT", "", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ApiReply r = client_->Invoke(kService, c.operation, c.input);
    EXPECT_FALSE(r.ok) << r.raw;
    EXPECT_EQ(c.error_type, r.error_type) << r.raw;
    if (!c.message.empty()) {
      ASSERT_EQ(1u, r.message_ids.size()) << r.raw;
      EXPECT_EQ(c.message, r.message_ids[0]);
      EXPECT_EQ(c.args, r.message_args[0]);
    }
  }
  EXPECT_EQ(before, List());
  // get and delete of the unknown version each log it once.
  EXPECT_EQ(2, daemon_->CountInLog("The HYV base image version '7.0.0' not found"));
}

TEST_F(BaseImagesService, ReadersMayListButNotImport) {
  ApiClient anonymous(daemon_->Port(), "");
  ApiReply r = anonymous.Invoke(kService, "import", {{"imgdb", ApiClient::Base64(imgdb_->Make(""))}});
  EXPECT_EQ("UNAUTHENTICATED", r.error_type) << r.raw;
  EXPECT_EQ(nlohmann::json::array(), List());
}

}  // namespace
}  // namespace Witnessd::Testing
