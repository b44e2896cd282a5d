// One session's steps against a software host's real AK, credential, quote
// and event log; each case changes one thing the host sends.
#include "tpm2/Session.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "config/tpm2/EkId.h"
#include "platform/Log.h"
#include "platform/ssl/SslUtils.h"
#include "platform/tcg/Tpm20Cmd.h"
#include "tests/support/AttestedBoot.h"
#include "tests/support/LogCapture.h"
#include "tools/BootLog.h"
#include "tools/HostTpm.h"
#include "tpm2/CredentialProtection.h"
#include "verify/Tpm2Marshal.h"

namespace Witnessd::Tpm2 {
namespace {

using Testing::Capture;
using Testing::Hex;

using Agent::BootPlan;

class SessionTest : public testing::Test {
 protected:
  void SetUp() override {
    host_ = Agent::MakeSoftwareHost(/*reuse_ak=*/true);
    ASSERT_TRUE(host_->EkPublic(&ek_public_));
    std::string pem;
    ASSERT_TRUE(Agent::EkPublicPem(ek_public_, &pem));
    ek_id_ = Config::Tpm2::EkIdOf(pem).value();
    session_ = std::make_unique<Session>(ek_id_, 0);
  }

  // Activate runs create-AK and activate-AK with the host's real answers.
  void Activate() {
    Bytes ak;
    ASSERT_TRUE(host_->CreateAk(AkTemplate(), OutsideInfo(), &ak));
    Bytes blob, secret, cert_info;
    ASSERT_EQ(SessionResult::kSuccess, session_->SetAttestationKey(ak, ek_public_, blob, secret));
    ASSERT_TRUE(host_->ActivateCredential(blob, secret, &cert_info));
    ASSERT_EQ(SessionResult::kSuccess, session_->ActivateAttestationKey(cert_info));
  }

  // Quote measures |plan| into the host and returns its quote and PCR reads.
  struct Quote {
    Bytes quoted, signature;
    std::vector<Bytes> selections, values;
  };
  Quote MeasureAndQuote(const BootPlan& plan) {
    Quote q;
    EXPECT_TRUE(Agent::MeasureBoot(host_.get(), plan, Agent::HypervisorBootEvents(plan)));
    std::vector<Agent::PcrReadResult> reads;
    EXPECT_TRUE(host_->Quote(session_->QuoteQualifyingData(), QuoteSigScheme(), RequiredPcrSelection(), &q.quoted,
                             &q.signature));
    EXPECT_TRUE(host_->ReadPcrs(RequiredPcrSelection(), &reads));
    for (const auto& r : reads) {
      q.selections.push_back(r.selection_out);
      q.values.push_back(r.values);
    }
    return q;
  }

  static ExpectedMeasurements Expected(const BootPlan& plan) {
    auto table = std::make_shared<Verify::PayloadChecksumTable>();
    for (const char* name : {Agent::kKernelPayload, Agent::kSystemPayload, Agent::kSystemBootPayload,
                             Agent::kUpdatePayload}) {
      (*table)[name] = Hex(Agent::PayloadDigest(plan, name));
    }
    return {Hex(Agent::LaunchDigest(plan)), table};
  }

  std::unique_ptr<Agent::HostTpm> host_;
  Bytes ek_public_;
  Config::Tpm2::EkId ek_id_{};
  std::unique_ptr<Session> session_;
};

TEST_F(SessionTest, WholeConversationInEitherOrder) {
  for (bool log_first : {false, true}) {
    for (bool txt : {false, true}) {
      SCOPED_TRACE(std::string(log_first ? "log first" : "quote first") + (txt ? ", TXT" : ""));
      session_ = std::make_unique<Session>(ek_id_, 0);
      BootPlan plan;
      plan.txt = txt;
      Activate();
      Quote q = MeasureAndQuote(plan);
      Bytes log = Agent::WriteEventLog(Agent::HypervisorBootEvents(plan));
      Capture([&] {
        if (log_first) {
          EXPECT_EQ(SessionResult::kSuccess, session_->SetEventLog(log, true));
          EXPECT_EQ(SessionState::kEventLogReceived, session_->State());
          EXPECT_EQ(SessionResult::kSuccess, session_->SetQuote(q.quoted, q.signature, q.selections, q.values));
        } else {
          EXPECT_EQ(SessionResult::kSuccess, session_->SetQuote(q.quoted, q.signature, q.selections, q.values));
          EXPECT_EQ(SessionState::kQuoteReceived, session_->State());
          EXPECT_EQ(SessionResult::kSuccess, session_->SetEventLog(log, true));
        }
      });
      EXPECT_EQ(SessionState::kReadyForAttestation, session_->State());
      EXPECT_EQ("", session_->HvkernelDigest()) << "nothing read from the log before its replay";
      std::string out = Capture([&] { EXPECT_EQ(SessionResult::kSuccess, session_->VerifyEvidence()); });
      EXPECT_EQ(Hex(Agent::PayloadDigest(plan, Agent::kKernelPayload)), session_->HvkernelDigest()) << out;
      out = Capture([&] { EXPECT_EQ(SessionResult::kSuccess, session_->Attest(Expected(plan))); });
      EXPECT_EQ(SessionState::kAttested, session_->State()) << out;
      std::vector<std::string> want = {"secure_boot"};
      if (txt) {
        want = {"secure_boot", "txt", "drtm"};
      }
      EXPECT_EQ(want, session_->AttestedProperties());
    }
  }
}

TEST_F(SessionTest, StepsOutOfStateAreRefusedAndChangeNothing) {
  Bytes none;
  Bytes blob, secret;
  std::vector<Bytes> one = {Bytes{1}};
  const struct {
    const char* name;
    bool activated;
    std::function<SessionResult(Session&)> step;
    const char* log;
  } kCases[] = {
      {"activate before create", false, [&](Session& s) { return s.ActivateAttestationKey(none); },
       "Session AK not awaiting activation: 0"},
      {"quote before activation", false, [&](Session& s) { return s.SetQuote(none, none, one, one); },
       "Session not ready for quote data: 0"},
      {"event log before activation", false, [&](Session& s) { return s.SetEventLog(none, true); },
       "Session not ready for event log: 0"},
      {"attest before anything", false, [&](Session& s) { return s.Attest({}); },
       "Session not ready for attestation: 0"},
      {"second create", true, [&](Session& s) { return s.SetAttestationKey(none, none, blob, secret); },
       "Session state is not initialized: 2"},
      {"second activate", true, [&](Session& s) { return s.ActivateAttestationKey(none); },
       "Session AK not awaiting activation: 2"},
      {"attest without quote", true, [&](Session& s) { return s.Attest({}); }, "Session not ready for attestation: 2"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    session_ = std::make_unique<Session>(ek_id_, 0);
    if (c.activated) {
      Activate();
    }
    SessionState before = session_->State();
    SessionResult code;
    std::string log = Capture([&] { code = c.step(*session_); });
    EXPECT_EQ(SessionResult::kInvalidState, code);
    EXPECT_NE(std::string::npos, log.find(c.log)) << log;
    EXPECT_EQ(before, session_->State());
  }
}

TEST_F(SessionTest, CreateAkRefusesKeysOtherThanTheSessionsEkAndTheTemplate) {
  Bytes ak;
  ASSERT_TRUE(host_->CreateAk(AkTemplate(), OutsideInfo(), &ak));
  Bytes other_ek;
  ASSERT_TRUE(Agent::MakeSoftwareHost()->EkPublic(&other_ek));
  Bytes signing_ek = ek_public_;
  signing_ek[7] |= 0x04;  // objectAttributes byte 3: sign (bit 18)
  Bytes decrypting_ak = ak;
  decrypting_ak[7] |= 0x02;  // decrypt (bit 17)
  const struct {
    const char* name;
    Bytes ak, ek;
    const char* log;
  } kCases[] = {
      {"AK truncated", Bytes(ak.begin(), ak.end() - 1), ek_public_, "Failed to extract AK public key"},
      {"AK may decrypt", decrypting_ak, ek_public_, "AK public key object attributes value does not match"},
      {"EK truncated", ak, Bytes(ek_public_.begin(), ek_public_.begin() + 10), "Failed to extract EK public key"},
      {"another TPM's EK", ak, other_ek, "EK public key digest does not match"},
      {"EK may sign", ak, signing_ek, "Failed to verify EK public key"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    Bytes blob, secret;
    SessionResult code;
    std::string log = Capture([&] { code = session_->SetAttestationKey(c.ak, c.ek, blob, secret); });
    EXPECT_EQ(SessionResult::kInvalidInput, code);
    EXPECT_NE(std::string::npos, log.find(c.log)) << log;
    EXPECT_EQ(SessionState::kInitialized, session_->State());
  }
  // Another host's EK that an earlier session already prepared is refused
  // all the same; the session's own EK is then prepared and served.
  PreparedEks eks;
  eks.Add(other_ek, {Config::Tpm2::EkIdOfSpkiDer(*Tpm20Cmd::Tpm2PubSpkiDer(other_ek)), PrepareCredentialKey(other_ek)});
  Session session(ek_id_, 0, false, &eks);
  Bytes blob, secret;
  SessionResult code;
  std::string log = Capture([&] { code = session.SetAttestationKey(ak, other_ek, blob, secret); });
  EXPECT_EQ(SessionResult::kInvalidInput, code);
  EXPECT_NE(std::string::npos, log.find("EK public key digest does not match")) << log;
  EXPECT_EQ(SessionState::kInitialized, session.State());
  ASSERT_EQ(SessionResult::kSuccess, session.SetAttestationKey(ak, ek_public_, blob, secret));
  EXPECT_EQ(ek_id_, eks.Find(ek_public_)->id);
}

TEST_F(SessionTest, ActivationNeedsExactlyTheSecret) {
  Bytes ak, blob, secret, cert_info;
  ASSERT_TRUE(host_->CreateAk(AkTemplate(), OutsideInfo(), &ak));
  ASSERT_EQ(SessionResult::kSuccess, session_->SetAttestationKey(ak, ek_public_, blob, secret));
  ASSERT_TRUE(host_->ActivateCredential(blob, secret, &cert_info));
  ASSERT_EQ(34u, cert_info.size());
  Bytes longer = cert_info;  // the secret with one more byte
  longer[1]++;
  longer.push_back(0);
  Bytes flipped = cert_info;
  flipped.back() ^= 1;
  const struct {
    const char* name;
    Bytes cert_info;
    const char* log;
  } kCases[] = {
      {"one byte longer", longer, "Failed to verify credential"},
      {"one bit changed", flipped, "Failed to verify credential"},
      {"truncated", Bytes(cert_info.begin(), cert_info.end() - 1), "Failed to extract AK credential"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    SessionResult code;
    std::string log = Capture([&] { code = session_->ActivateAttestationKey(c.cert_info); });
    EXPECT_EQ(SessionResult::kInvalidInput, code);
    EXPECT_NE(std::string::npos, log.find(c.log)) << log;
  }
  EXPECT_EQ(SessionResult::kSuccess, session_->ActivateAttestationKey(cert_info));
}

TEST_F(SessionTest, QuoteNeedsOneValueListPerSelection) {
  // Checked before the state: a fresh session answers invalid input, not
  // invalid state.
  Bytes x = {1};
  std::string log;
  log = Capture([&] { EXPECT_EQ(SessionResult::kInvalidInput, session_->SetQuote(x, x, {x, x}, {x})); });
  EXPECT_NE(std::string::npos, log.find("Invalid PCR selection data"));
  log = Capture([&] { EXPECT_EQ(SessionResult::kInvalidInput, session_->SetQuote(x, x, {}, {})); });
  EXPECT_NE(std::string::npos, log.find("Invalid PCR selection data"));
}

TEST_F(SessionTest, UnparsableEventLogIsInvalidInput) {
  Activate();
  Bytes log = Agent::WriteEventLog(Agent::HypervisorBootEvents(BootPlan{}));
  log.pop_back();
  std::string out = Capture([&] { EXPECT_EQ(SessionResult::kInvalidInput, session_->SetEventLog(log, true)); });
  EXPECT_NE(std::string::npos, out.find("Failed to parse event log data"));
  EXPECT_EQ(SessionState::kAkActivated, session_->State());
}

// PCR reads must cover the requested selection, each PCR once, with one
// value per PCR: otherwise event-log validation could use values the
// quote's digest does not bind. Strict sessions refuse such reads when they
// arrive; lenient ones fill what they can and let the quote decide.
TEST_F(SessionTest, PcrReadsMustCoverTheRequestedSelectionOnce) {
  using namespace Verify;
  auto selection = [](std::vector<std::pair<uint16_t, std::vector<uint8_t>>> sels) {
    TPML_PCR_SELECTION s = {};
    s.count = static_cast<uint32_t>(sels.size());
    for (size_t i = 0; i < sels.size(); i++) {
      s.pcrSelections[i].hash = sels[i].first;
      s.pcrSelections[i].sizeofSelect = static_cast<uint8_t>(sels[i].second.size());
      std::copy(sels[i].second.begin(), sels[i].second.end(), s.pcrSelections[i].pcrSelect);
    }
    uint8_t buf[128];
    uint32_t len = Tpm2_Marshal_TPML_PCR_SELECTION(&s, buf, sizeof(buf));
    return Bytes(buf, buf + len);
  };
  Agent::HostTpm* host = host_.get();
  const Bytes pcr0 = selection({{kTpmAlgSha256, {1, 0, 0}}});
  const struct {
    const char* name;
    std::function<void(Quote&)> change;
    const char* strict_log;
    SessionResult lenient;  // the final step's code without strict checks
    const char* lenient_log;
  } kCases[] = {
      {"SHA-1 bank", [&](Quote& q) { q.selections[0] = selection({{kTpmAlgSha1, {0, 0xff, 0}}}); },
       "Expected PCR hash algorithm 11 but found 4", SessionResult::kInvalidInput,
       "Expected PCR hash algorithm 11 but found 4"},
      {"two selections in one read",
       [&](Quote& q) { q.selections[0] = selection({{kTpmAlgSha256, {0, 0xff, 0}}, {kTpmAlgSha256, {0, 0, 0x7e}}}); },
       "Expected one PCR selection but found 2", SessionResult::kInvalidInput,
       "Expected one PCR selection but found 2"},
      {"PCR beyond 23", [&](Quote& q) { q.selections[0] = selection({{kTpmAlgSha256, {0, 0, 0, 1}}}); },
       "PCR read names 1 PCRs but holds 8 values", SessionResult::kInvalidInput,
       "Expected PCR index below 24 but found 24"},
      {"undecodable", [&](Quote& q) { q.selections[0] = Bytes{0, 0, 0, 1, 0}; }, "Failed to extract PCR selections",
       SessionResult::kInvalidInput, "Failed to extract PCR selections"},
      {"a read repeated",
       [&](Quote& q) {
         q.selections.push_back(q.selections[0]);
         q.values.push_back(q.values[0]);
       },
       "PCR read repeats PCRs 0x00ff00", SessionResult::kSuccess, ""},
      {"PCRs 17-22 not read",
       [&](Quote& q) {
         q.selections.pop_back();
         q.values.pop_back();
       },
       "PCR reads cover PCRs 0x00ff00 instead of the requested 0x7eff00", SessionResult::kVerificationFailed,
       "Quote validation failed for session"},
      {"PCR 0 read as well",
       [&](Quote& q) {
         std::vector<Agent::PcrReadResult> extra;
         ASSERT_TRUE(host->ReadPcrs(pcr0, &extra));
         q.selections.push_back(extra[0].selection_out);
         q.values.push_back(extra[0].values);
       },
       "PCR reads cover PCRs 0x7eff01 instead of the requested 0x7eff00", SessionResult::kSuccess, ""},
      {"more values than PCRs named", [&](Quote& q) { q.values[1] = q.values[0]; },
       "PCR read names 6 PCRs but holds 8 values", SessionResult::kVerificationFailed,
       "Quote validation failed for session"},
  };
  BootPlan plan;
  Bytes log = Agent::WriteEventLog(Agent::HypervisorBootEvents(plan));
  for (const auto& c : kCases) {
    for (bool strict : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (strict ? ", strict" : ", lenient"));
      session_ = std::make_unique<Session>(ek_id_, 0, strict);
      Activate();
      Quote q = MeasureAndQuote(plan);
      ASSERT_EQ(2u, q.selections.size());
      c.change(q);
      SessionResult code = SessionResult::kSuccess;
      std::string out = Capture([&] {
        code = session_->SetQuote(q.quoted, q.signature, q.selections, q.values);
        if (code == SessionResult::kSuccess) {
          ASSERT_EQ(SessionResult::kSuccess, session_->SetEventLog(log, true));
          if ((code = session_->VerifyEvidence()) == SessionResult::kSuccess) code = session_->Attest(Expected(plan));
        }
      });
      if (strict) {
        EXPECT_EQ(SessionResult::kInvalidInput, code);
        EXPECT_EQ(SessionState::kAkActivated, session_->State()) << "refused when the reads arrive";
        EXPECT_NE(std::string::npos, out.find(c.strict_log)) << out;
      } else {
        EXPECT_EQ(c.lenient, code) << out;
        EXPECT_NE(std::string::npos, out.find(c.lenient_log)) << out;
      }
    }
  }
}

// What a failed check of the quote or the log is reported as.
TEST_F(SessionTest, VerificationFailuresMapToCodes) {
  BootPlan plan;
  BootPlan other_kernel;
  other_kernel.payload_digests[Agent::kSystemPayload] = Bytes(32, 0x5a);
  const struct {
    const char* name;
    std::function<void(Quote&)> change_quote;
    BootPlan expected_plan;
    bool complete;
    SessionResult code;
    const char* log;
  } kCases[] = {
      {"quote signature broken", [](Quote& q) { q.signature.back() ^= 1; }, plan, true,
       SessionResult::kVerificationFailed, "Quote validation failed for session"},
      {"quote undecodable", [](Quote& q) { q.quoted.resize(4); }, plan, true, SessionResult::kInvalidInput,
       "Quote validation failed for session"},
      {"payload not trusted", [](Quote&) {}, other_kernel, true, SessionResult::kVerificationFailed,
       "Event validation failed for session"},
      {"same, log not complete", [](Quote&) {}, other_kernel, false, SessionResult::kIncompleteEventLog,
       "Event validation failed for session"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    session_ = std::make_unique<Session>(ek_id_, 0);
    Activate();
    Quote q = MeasureAndQuote(plan);
    c.change_quote(q);
    std::string log = Capture([&] {
      ASSERT_EQ(SessionResult::kSuccess, session_->SetQuote(q.quoted, q.signature, q.selections, q.values));
      ASSERT_EQ(SessionResult::kSuccess,
                session_->SetEventLog(Agent::WriteEventLog(Agent::HypervisorBootEvents(plan)), c.complete));
      SessionResult code = session_->VerifyEvidence();
      EXPECT_EQ(c.code, code != SessionResult::kSuccess ? code : session_->Attest(Expected(c.expected_plan)));
    });
    EXPECT_NE(std::string::npos, log.find(c.log)) << log;
  }
}

}  // namespace
}  // namespace Witnessd::Tpm2
