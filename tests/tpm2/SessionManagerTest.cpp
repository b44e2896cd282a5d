// The session manager and the Report service in process: a software host
// runs the whole conversation against ReportImpl over a real configuration
// store, so every report error is provoked by what a host actually sends.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "api/errors/ErrorCatalogue.h"
#include "api/services/ReportImpl.h"
#include "config/SigningKey.h"
#include "config/tpm2/TrustConfiguration.h"
#include "document/AttestationToken.h"
#include "platform/Hearth.h"
#include "platform/Log.h"
#include "platform/System.h"
#include "platform/ssl/SslUtils.h"
#include "tests/config/StoreFixture.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TokenCheck.h"
#include "tests/tpm2/InProcessReport.h"
#include "tools/Agent.h"
#include "tpm2/SessionManager.h"
#include "tpm2/CredentialProtection.h"
#include "tpm2/proto/attestation.pb.h"
#include "transfer/ConfigTransfer.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::Tpm2 {
namespace {

using AttestApi::ReportImpl;
using AttestApi::ReportSvc;
namespace Errors = AttestApi::Errors;
using Config::ConfigResult;

constexpr const char* kVersion = "8.0.1-4242";

using Testing::Capture;
using Testing::Hex;

// A clock the test moves by hand.
struct ManualClock {
  uint64_t now_us = 1000000;
  SessionManager::Clock Fn() {
    return [this] { return now_us; };
  }
};

class SessionManagerTest : public Testing::StoreFixture {
 protected:
  void SetUp() override {
    keys_.Ensure();
    trust_.Load();
    ASSERT_EQ(ConfigResult::kConfigOk, trust_.UpdateTpm2Settings(true, false));
    host_ = Agent::MakeSoftwareHost(/*reuse_ak=*/true);
    Bytes ek_public;
    ASSERT_TRUE(host_->EkPublic(&ek_public));
    ASSERT_TRUE(Agent::EkPublicPem(ek_public, &ek_pem_));
    ASSERT_EQ(ConfigResult::kConfigOk, trust_.AddEndorsementKey("ek1", ek_pem_));
    ek_id_ = Config::Tpm2::EkIdOf(ek_pem_).value();
    ASSERT_TRUE(Testing::PutBaseImage(images_, Agent::BootPlan{}, kVersion));
    Build(SessionLimits{}, 0);
  }

  // Build makes the session manager, the token signer and the Report service anew.
  void Build(const SessionLimits& limits, int64_t validity_seconds) {
    report_.reset();
    manager_ = std::make_unique<SessionManager>(limits, images_, clock_.Fn());
    signer_ = std::make_unique<Document::TokenSigner>(keys_, validity_seconds);
    report_ = std::make_unique<ReportImpl>(trust_, *manager_, *signer_);
  }

  Agent::AttestResult Run(const Agent::AttestOptions& options) {
    return Agent::AttestWith(host_.get(), options, Testing::InProcessTransport(report_.get()));
  }

  size_t EkCount() { return manager_->EkSessionCount(ek_id_); }

  // Decode verifies a token with the report-signing certificate; null when
  // the signature does not verify.
  std::shared_ptr<jwt_t> Decode(const std::string& token) {
    return Testing::DecodeToken(token, keys_.Current()->certificate);
  }

  Config::StatusConditions status_;
  Config::SigningKeys keys_{store_};
  Config::Tpm2::TrustConfiguration trust_{store_};
  Trusted::BaseImageStore images_{store_, status_};
  ManualClock clock_;
  std::unique_ptr<Agent::HostTpm> host_;
  std::string ek_pem_;
  Config::Tpm2::EkId ek_id_{};
  std::unique_ptr<SessionManager> manager_;
  std::unique_ptr<Document::TokenSigner> signer_;
  std::unique_ptr<ReportImpl> report_;
};

TEST_F(SessionManagerTest, SoftwareHostAttestsAndGetsSignedTokens) {
  const struct {
    const char* name;
    bool txt;
    std::vector<std::string> types;
    const char* properties;
    bool new_signing_pair;  // stored and loaded first: tokens verify with its certificate
  } kCases[] = {
      {"no TXT, one token", false, {"KMS_AUTH_JWT"}, R"(["secure_boot"])", false},
      {"TXT, both tokens", true, {"KMS_AUTH_JWT", "REPORTING_JWT"}, R"(["secure_boot","txt","drtm"])", false},
      {"reporting only, new signing pair", false, {"REPORTING_JWT"}, R"(["secure_boot"])", true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    if (c.new_signing_pair) {
      std::string key, cert;
      ASSERT_TRUE(Orm::Common::SslUtils::GenerateKeyAndCert(key, cert));
      ASSERT_TRUE(keys_.Save(cert, key));
      keys_.Ensure();
    }
    Agent::AttestOptions options;
    options.boot.txt = c.txt;
    options.document_types = c.types;
    std::string log;
    Agent::AttestResult r;
    log = Capture([&] { r = Run(options); });
    ASSERT_TRUE(r.ok) << r.failure << r.error_id << log;
    EXPECT_EQ(4, r.turns);
    ASSERT_EQ(c.types.size(), r.documents.size());
    EXPECT_NE(std::string::npos, log.find("Attestation complete for session ID " + std::to_string(r.session_id) +
                                          " with HYV version " + kVersion));
    EXPECT_NE(std::string::npos, log.find("End session " + std::to_string(r.session_id) + ": success"));
    long iat = -1, exp = -1;
    for (size_t i = 0; i < c.types.size(); i++) {
      EXPECT_EQ(c.types[i], r.documents[i].first);
      auto jwt = Decode(r.documents[i].second);
      ASSERT_NE(nullptr, jwt) << "token does not verify with the report-signing certificate";
      EXPECT_STREQ("RS256", jwt_get_header(jwt.get(), "alg"));
      EXPECT_STREQ("hyv", jwt_get_grant(jwt.get(), "os"));
      EXPECT_STREQ(kVersion, jwt_get_grant(jwt.get(), "os_version"));
      EXPECT_EQ(Hostinfo_HostName() + "/attestation", jwt_get_grant(jwt.get(), "iss"));
      std::unique_ptr<char, decltype(&free)> props(jwt_get_grants_json(jwt.get(), "attested_properties"), free);
      ASSERT_NE(nullptr, props);
      EXPECT_STREQ(c.properties, props.get());
      EXPECT_STREQ(c.types[i] == "KMS_AUTH_JWT" ? "orbd" : nullptr, jwt_get_grant(jwt.get(), "aud"));
      // Every token of one answer shares iat and exp.
      if (i == 0) {
        iat = jwt_get_grant_int(jwt.get(), "iat");
        exp = jwt_get_grant_int(jwt.get(), "exp");
      }
      EXPECT_EQ(iat, jwt_get_grant_int(jwt.get(), "iat"));
      EXPECT_EQ(exp, jwt_get_grant_int(jwt.get(), "exp"));
    }
    // Random validity: whole minutes from 7 h to 7 h 59 min.
    EXPECT_EQ(0, (exp - iat) % 60);
    EXPECT_GE(exp - iat, 25200);
    EXPECT_LE(exp - iat, 28740);
    EXPECT_EQ(0u, manager_->SessionCount());
    EXPECT_EQ(0u, EkCount());
  }
  Trusted::StoredBaseImage image;
  ASSERT_EQ(ConfigResult::kConfigOk, images_.Read(kVersion, image));
  EXPECT_FALSE(image.last_attested_time.empty());
  EXPECT_EQ(3u, manager_->Statistics().success);
}

TEST_F(SessionManagerTest, ConfiguredValidityIsUsedAsIs) {
  Build(SessionLimits{}, 90);
  Agent::AttestResult r;
  Capture([&] { r = Run({}); });
  ASSERT_TRUE(r.ok) << r.failure << r.error_id;
  auto jwt = Decode(r.documents[0].second);
  ASSERT_NE(nullptr, jwt);
  EXPECT_EQ(90, jwt_get_grant_int(jwt.get(), "exp") - jwt_get_grant_int(jwt.get(), "iat"));
}

// Each failure a host can cause ends its session with one report error.
TEST_F(SessionManagerTest, HostFaultsMapToReportErrors) {
  using Agent::Fault;
  const struct {
    const char* name;
    Fault fault;
    bool secure_boot;
    bool log_complete;
    const char* error;
    const char* log;
    bool session_left = false;  // a request naming no session ends none
    bool lying_log = false;     // the TPM measured an untrusted kernel; the log names the trusted one
  } kCases[] = {
      {"tampered AK", Fault::kTamperedAk, true, true, Errors::kReportAttestInvalidInput,
       "AK public key object attributes value does not match"},
      {"wrong credential", Fault::kWrongCredential, true, true, Errors::kReportAttestInvalidInput, "Failed to verify credential"},
      {"out of order", Fault::kOutOfOrder, true, true, Errors::kReportAttestInvalidState, "Session AK not awaiting activation: 0"},
      {"made-up session", Fault::kUnknownSession, true, true, Errors::kReportAttestUnknownSession, "Invalid session ID: ", true},
      {"PCR extended after the log", Fault::kPcrAfterLog, true, true, Errors::kReportAttestVerifyFailed,
       "Event validation failed for session"},
      {"same, log not complete", Fault::kPcrAfterLog, true, false, Errors::kReportAttestIncomplete,
       "Event validation failed for session"},
      {"no secure boot", Fault::kNone, false, true, Errors::kReportAttestNoSecureBoot, "error = {7, 0}"},
      {"two responses in one message", Fault::kBothResponsesInOne, true, true, Errors::kReportAttestInvalidInput,
       "Message requires 1 supported type, contains: 2"},
      // A compromised host with a genuine quote: the kernel digest of its
      // log is never believed, since the log does not replay to the quote.
      {"trusted log over an untrusted boot", Fault::kNone, true, true, Errors::kReportAttestVerifyFailed,
       "PCR 12 data mismatch during replay", false, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Agent::AttestOptions options;
    options.fault = c.fault;
    options.boot.secure_boot = c.secure_boot;
    options.log_complete = c.log_complete;
    if (c.lying_log) {
      options.measured_boot = options.boot;
      options.measured_boot->payload_digests[Agent::kKernelPayload] = Bytes(32, 0x66);
    }
    Agent::AttestResult r;
    std::string log = Capture([&] { r = Run(options); });
    EXPECT_FALSE(r.ok);
    EXPECT_EQ("ERROR", r.error_type) << r.failure;
    EXPECT_EQ(c.error, r.error_id);
    EXPECT_NE(std::string::npos, log.find(c.log)) << log;
    EXPECT_NE(std::string::npos, log.find("TPM 2 attestation failure: ")) << log;
    EXPECT_EQ(c.session_left ? 1u : 0u, manager_->SessionCount());
    clock_.now_us += manager_->Limits().timeout_us + 1;
    Capture([&] { manager_->CleanupExpiredSessions(); });
    // Whatever failed, no session and no EK reference is left behind, and
    // no base image counts as attested.
    EXPECT_EQ(0u, manager_->SessionCount());
    EXPECT_EQ(0u, EkCount());
    Trusted::StoredBaseImage image;
    ASSERT_EQ(ConfigResult::kConfigOk, images_.Read(kVersion, image));
    EXPECT_EQ("", image.last_attested_time);
  }
}

// A session whose next call EK identification refuses (its EK deleted, or
// certificates required while it presents its key) ends at once: the EK's
// session places are free for its next attestation, not held until expiry.
TEST_F(SessionManagerTest, RefusedContinuationEndsItsSession) {
  const struct {
    const char* name;
    std::function<ConfigResult()> refuse;
    std::function<ConfigResult()> restore;
    const char* error;
  } kCases[] = {
      {"certificates required", [&] { return trust_.UpdateTpm2Settings({}, true); },
       [&] { return trust_.UpdateTpm2Settings({}, false); }, Errors::kReportTpmCertRequired},
      {"EK deleted", [&] { return trust_.DeleteEndorsementKey("ek1"); },
       [&] { return trust_.AddEndorsementKey("ek1", ek_pem_); }, Errors::kReportUnknownTpm},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Build(SessionLimits{}, 0);  // statistics from zero
    Agent::ReportTransport direct = Testing::InProcessTransport(report_.get());
    auto refuse_then_call = [&](const Agent::ReportCall& call, Agent::ReportAnswer* out, std::string* failure) {
      if (call.turn == 2) {
        EXPECT_EQ(ConfigResult::kConfigOk, c.refuse());
      }
      return direct(call, out, failure);
    };
    Agent::AttestResult r = Agent::AttestWith(host_.get(), {}, refuse_then_call);
    EXPECT_EQ(c.error, r.error_id) << r.failure;
    EXPECT_EQ(0u, EkCount());
    EXPECT_EQ(1u, manager_->Statistics().failed);
    ASSERT_EQ(ConfigResult::kConfigOk, c.restore());
    Agent::AttestResult next = Run({});
    EXPECT_TRUE(next.ok) << next.error_id << next.failure;
  }
}

TEST_F(SessionManagerTest, UnknownSoftwareWhenNoBaseImageHasTheKernel) {
  Agent::AttestOptions options;
  options.boot.payload_digests[Agent::kKernelPayload] = Bytes(32, 0x42);
  Agent::AttestResult r;
  std::string log = Capture([&] { r = Run(options); });
  EXPECT_EQ(Errors::kReportAttestUnknownSoftware, r.error_id);
  EXPECT_NE(std::string::npos, log.find("Unknown Hvkernel digest: " + Hex(Bytes(32, 0x42))));
  EXPECT_EQ(1u, manager_->Statistics().failed);
}

// Proven sessions (credential activated) hold their EK's places; deleting
// and re-adding the EK, or importing the configuration, loses none of them.
TEST_F(SessionManagerTest, ProvenSessionsKeepTheirPlacesAcrossEkChanges) {
  Agent::AttestOptions hold;
  hold.max_turns = 3;  // first call, AK created, credential activated
  for (int i = 0; i < 5; i++) {
    Capture([&] { EXPECT_TRUE(Run(hold).error_id.empty()); });
  }
  Transfer::ConfigTransfer transfer(store_, keys_, trust_, images_);
  std::optional<Transfer::ConfigTransfer::Exported> saved = transfer.Export();
  ASSERT_TRUE(saved);
  const std::string exported = saved->text;
  const struct {
    const char* name;
    std::function<void()> change;
  } kChanges[] = {
      {"none", [] {}},
      {"EK deleted and added again",
       [&] {
         ASSERT_EQ(ConfigResult::kConfigOk, trust_.DeleteEndorsementKey("ek1"));
         ASSERT_EQ(ConfigResult::kConfigOk, trust_.AddEndorsementKey("ek1", ek_pem_));
       }},
      {"configuration imported", [&] { ASSERT_EQ(ConfigResult::kConfigOk, transfer.Import(exported)); }},
  };
  for (const auto& c : kChanges) {
    SCOPED_TRACE(c.name);
    Capture(c.change);
    Agent::AttestResult sixth;
    std::string log = Capture([&] { sixth = Run(hold); });
    EXPECT_EQ(Errors::kReportAttestSessionLimit, sixth.error_id);
    EXPECT_NE(std::string::npos, log.find("Failed to start attestation"));
    EXPECT_EQ(std::string::npos, log.find("Ending unproven session"));
    EXPECT_EQ(5u, EkCount());
  }

  // Expiry gives the places back.
  clock_.now_us += manager_->Limits().timeout_us + 1;
  std::string log = Capture([&] { manager_->CleanupExpiredSessions(); });
  EXPECT_EQ(5, [&] {
    int n = 0;
    for (size_t p = 0; (p = log.find("Removing expired session", p)) != std::string::npos; p++) n++;
    return n;
  }());
  EXPECT_EQ(0u, manager_->SessionCount());
  EXPECT_EQ(0u, EkCount());
  EXPECT_EQ(5u, manager_->Statistics().timed_out);
  EXPECT_EQ(5u, manager_->Statistics().peak);
  Capture([&] { EXPECT_TRUE(Run({}).ok); });
}

// A full table ends its oldest unproven session for a new one, whatever
// the EK; a table of proven sessions refuses.
TEST_F(SessionManagerTest, FullTableEndsTheOldestUnprovenSessionFirst) {
  SessionLimits limits;
  limits.max_sessions = 2;
  limits.max_sessions_per_ek = 20;
  Build(limits, 0);
  Agent::AttestOptions unproven;
  unproven.max_turns = 1;
  Agent::AttestOptions proven;
  proven.max_turns = 3;

  Agent::AttestResult a, b, c, d, refused;
  Capture([&] { a = Run(unproven); });
  Capture([&] { b = Run(proven); });
  std::string log = Capture([&] { c = Run(unproven); });
  EXPECT_NE(std::string::npos, log.find("Ending unproven session " + std::to_string(a.session_id) + " of EK"));
  log = Capture([&] { d = Run(proven); });
  EXPECT_NE(std::string::npos, log.find("Ending unproven session " + std::to_string(c.session_id) + " of EK"));
  log = Capture([&] { refused = Run(unproven); });
  EXPECT_EQ(Errors::kReportAttestFailed, refused.error_id);
  EXPECT_NE(std::string::npos, log.find("Unable to allocate new session"));
  EXPECT_EQ(2u, manager_->SessionCount());
  EXPECT_EQ(2u, manager_->Statistics().failed);  // the two ended for newer ones
  for (const auto* r : {&a, &b, &c, &d}) {
    EXPECT_TRUE(r->error_id.empty()) << r->error_id;
  }
}

// Steps against one session driven by hand, for what the agent cannot fake.
class ManualConversation : public SessionManagerTest {
 protected:
  using Context = attestation::proto::Context;

  ProcessResult Call(const Config::Tpm2::EkId& ek, const std::optional<Context>& context) {
    std::optional<Bytes> bytes;
    if (context) {
      std::string s = context->SerializeAsString();
      bytes = Bytes(s.begin(), s.end());
    }
    ProcessResult r;
    last_log_ = Capture([&] { r = manager_->ProcessRequest(ek, bytes); });
    return r;
  }

  static Context Parse(const ProcessResult& r) {
    Context c;
    EXPECT_TRUE(c.ParseFromArray(r.out_context.data(), static_cast<int>(r.out_context.size())));
    return c;
  }

  std::string last_log_;
};

TEST_F(ManualConversation, ExpiredSessionIsUnknownAndCountsFromCreation) {
  ProcessResult first = Call(ek_id_, std::nullopt);
  ASSERT_EQ(SessionResult::kSuccess, first.code);
  Context in = Parse(first);
  ASSERT_EQ(1, in.messages_size());
  ASSERT_TRUE(in.messages(0).has_create_ak_request());
  EXPECT_EQ(AkTemplate(), Bytes(in.messages(0).create_ak_request().ak_template().begin(),
                                in.messages(0).create_ak_request().ak_template().end()));

  clock_.now_us += manager_->Limits().timeout_us;  // not older than the timeout yet
  Capture([&] { manager_->CleanupExpiredSessions(); });
  EXPECT_EQ(1u, manager_->SessionCount());
  clock_.now_us += 1;
  Capture([&] { manager_->CleanupExpiredSessions(); });
  EXPECT_EQ(0u, manager_->SessionCount());

  Context next;
  next.set_session_id(in.session_id());
  next.add_messages()->mutable_activate_ak_response()->set_cert_info(std::string(34, '\0'));
  ProcessResult r = Call(ek_id_, next);
  EXPECT_EQ(SessionResult::kUnknownSession, r.code);
  EXPECT_NE(std::string::npos, last_log_.find("Invalid session ID: " + std::to_string(in.session_id())));
  EXPECT_EQ(std::string::npos, last_log_.find("End session"));
}

TEST_F(ManualConversation, RequestsThatNameNoUsableSessionLeaveItAlive) {
  ProcessResult first = Call(ek_id_, std::nullopt);
  ASSERT_EQ(SessionResult::kSuccess, first.code);
  uint64_t id = Parse(first).session_id();

  std::unique_ptr<Agent::HostTpm> other = Agent::MakeSoftwareHost();
  Bytes other_ek;
  std::string other_pem;
  ASSERT_TRUE(other->EkPublic(&other_ek) && Agent::EkPublicPem(other_ek, &other_pem));
  const Config::Tpm2::EkId other_id = Config::Tpm2::EkIdOf(other_pem).value();

  Context no_id;
  no_id.add_messages();
  Context no_messages;
  no_messages.set_session_id(id);
  Context one_message;
  one_message.set_session_id(id);
  one_message.add_messages()->mutable_activate_ak_response()->set_cert_info(std::string(34, '\0'));

  // A refused call ends only its own EK's session.
  auto serialized = [](const Context& c) {
    std::string text = c.SerializeAsString();
    return Bytes(text.begin(), text.end());
  };
  manager_->EndRefusedSession(other_id, serialized(one_message));
  manager_->EndRefusedSession(ek_id_, serialized(no_id));
  EXPECT_EQ(1u, manager_->SessionCount());

  const struct {
    const char* name;
    Config::Tpm2::EkId ek;
    std::optional<Context> context;
    std::string raw;  // sent instead of |context| when not empty
    SessionResult code;
    const char* log;
    bool session_survives;
  } kCases[] = {
      {"garbage context", ek_id_, std::nullopt, "\xff\xff\xff", SessionResult::kInvalidInput,
       "Invalid attestation context", true},
      {"no session id", ek_id_, no_id, "", SessionResult::kUnknownSession, "No session ID specified in context",
       true},
      {"another EK", other_id, one_message, "", SessionResult::kInvalidInput, "Ek public key not valid for session",
       true},
      {"no messages", ek_id_, no_messages, "", SessionResult::kInvalidInput, "Context specifies no messages", false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ProcessResult r;
    if (!c.raw.empty()) {
      last_log_ = Capture([&] { r = manager_->ProcessRequest(c.ek, Bytes(c.raw.begin(), c.raw.end())); });
    } else {
      r = Call(c.ek, c.context);
    }
    EXPECT_EQ(c.code, r.code);
    EXPECT_NE(std::string::npos, last_log_.find(c.log)) << last_log_;
    EXPECT_EQ(c.session_survives ? 1u : 0u, manager_->SessionCount());
  }
}

TEST_F(ManualConversation, IncompleteResponsesAreInvalidInput) {
  Context create;
  create.add_messages()->mutable_create_ak_response()->set_ek_public("x");
  Context activate;
  activate.add_messages()->mutable_activate_ak_response();
  Context quote;
  quote.add_messages()->mutable_quote_response()->set_quoted("q");
  Context read;
  auto* q = read.add_messages()->mutable_quote_response();
  q->set_quoted("q");
  q->set_signature("s");
  q->add_pcr_read_results()->set_pcr_values("v");
  Context log;
  log.add_messages()->mutable_event_log_response()->set_event_log("l");
  Context none;
  none.add_messages()->mutable_event_log_request();

  const struct {
    const char* name;
    Context context;
    const char* log;
  } kCases[] = {
      {"create AK without AK", create, "Invalid create AK response message"},
      {"activate without cert_info", activate, "Invalid activate AK response message"},
      {"quote without signature", quote, "Invalid quote response message"},
      {"PCR read without selection", read, "Invalid PCR read result message"},
      {"event log without complete", log, "Invalid event log response message"},
      {"a request, no response", none, "Message requires 1 supported type, contains: 0"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    ProcessResult first = Call(ek_id_, std::nullopt);
    ASSERT_EQ(SessionResult::kSuccess, first.code);
    Context in = c.context;
    in.set_session_id(Parse(first).session_id());
    ProcessResult r = Call(ek_id_, in);
    EXPECT_EQ(SessionResult::kInvalidInput, r.code);
    EXPECT_NE(std::string::npos, last_log_.find(c.log)) << last_log_;
    EXPECT_NE(std::string::npos, last_log_.find("Failed attestation for session ID: "));
    EXPECT_EQ(0u, manager_->SessionCount());
  }
}

TEST(SessionLimits, OutOfRangeValuesFallBackToDefaults) {
  const struct {
    const char* key;
    int64_t value;
    int32_t max_sessions;
    int32_t per_ek;
    int64_t timeout_us;
    const char* warning;  // null: accepted
  } kCases[] = {
      {"maxSessions", 99, 1000, 5, 300000000, "Invalid max sessions configured: 99"},
      {"maxSessions", 100, 100, 5, 300000000, nullptr},
      {"maxSessions", 10000, 10000, 5, 300000000, nullptr},
      {"maxSessions", 10001, 1000, 5, 300000000, "Invalid max sessions configured: 10001"},
      {"maxSessionsPerEk", 0, 1000, 5, 300000000, "Invalid max sessions per-EK configured: 0"},
      {"maxSessionsPerEk", 20, 1000, 20, 300000000, nullptr},
      {"maxSessionsPerEk", 21, 1000, 5, 300000000, "Invalid max sessions per-EK configured: 21"},
      {"sessionTimeoutSeconds", 29, 1000, 5, 300000000, "Invalid session timeout configured: 29"},
      {"sessionTimeoutSeconds", 30, 1000, 5, 30000000, nullptr},
      {"sessionTimeoutSeconds", 1800, 1000, 5, 1800000000, nullptr},
      {"sessionTimeoutSeconds", 1801, 1000, 5, 300000000, "Invalid session timeout configured: 1801"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.key) + "=" + std::to_string(c.value));
    auto settings = Hearth::Service::CreateScratchConfig();
    settings->SetInt(c.key, c.value);
    SessionLimits limits;
    std::string log = Capture([&] { limits = ReadSessionLimits(*settings); });
    EXPECT_EQ(c.max_sessions, limits.max_sessions);
    EXPECT_EQ(c.per_ek, limits.max_sessions_per_ek);
    EXPECT_EQ(c.timeout_us, limits.timeout_us);
    EXPECT_EQ(c.warning != nullptr, log.find("Invalid") != std::string::npos) << log;
    if (c.warning != nullptr) {
      EXPECT_NE(std::string::npos, log.find(c.warning)) << log;
    }
    EXPECT_NE(std::string::npos, log.find("Session timeout: " + std::to_string(c.timeout_us) + " us")) << log;
  }
}

}  // namespace
}  // namespace Witnessd::Tpm2
