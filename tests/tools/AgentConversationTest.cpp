// Agent::Attest over real HTTP against a stand-in Report service on
// loopback. The stand-in answers each turn with the daemon's own pieces
// (AK template, credential making, AK check, quote and event log
// verification), so the agent's JSON, base64, contexts, keep-alive and fault
// injection are exercised before the daemon's service exists.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/SwtpmProcess.h"
#include "tools/Agent.h"
#include "tools/TpmBytes.h"
#include "tpm2/CredentialProtection.h"
#include "tpm2/proto/attestation.pb.h"
#include "verify/QuoteVerify.h"

namespace Witnessd::Agent {
namespace {

namespace V = Witnessd::Verify;
using Json = nlohmann::json;
using Context = attestation::proto::Context;

constexpr uint64_t kSessionId = 0x1122334455667788ULL;
constexpr const char* kReportPrefix = "com.quarro.hyv.attestation.report.";

std::string S(const Bytes& b) { return std::string(b.begin(), b.end()); }
Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

// FakeReport keeps one session's state, as far as the agent can observe it.
class FakeReport {
 public:
  // Turn answers one request body with the reply's "result" member.
  Json Turn(const Json& request) {
    const Json& tpm2 = request["params"]["input"]["request"]["tpm2"];
    ek_pem_seen_ = tpm2["ek"].value("public_key", "");
    certificate_seen_ = tpm2["ek"].value("certificate", "");
    if (tpm2["contexts"].empty()) {
      Context out;
      out.set_session_id(kSessionId);
      auto* r = out.add_messages()->mutable_create_ak_request();
      r->set_ak_template(S(Tpm2::AkTemplate()));
      r->set_outside_info(S(Tpm2::OutsideInfo()));
      return Contexts(out);
    }
    Bytes raw;
    Context in;
    if (!Base64Decode(tpm2["contexts"][0].get<std::string>(), &raw) ||
        !in.ParseFromArray(raw.data(), static_cast<int>(raw.size()))) {
      return Error("attest_invalid_input");
    }
    if (in.session_id() != kSessionId) {
      return Error("attest_unknown_session");
    }
    Context out;
    out.set_session_id(kSessionId);
    for (const Context::Message& m : in.messages()) {
      int responses = m.has_create_ak_response() + m.has_activate_ak_response() + m.has_quote_response() +
                      m.has_event_log_response();
      if (responses != 1) {
        return Error("attest_invalid_input");
      }
      if (m.has_create_ak_response()) {
        if (state_ != 0) {
          return Error("attest_invalid_state");
        }
        ak_ = B(m.create_ak_response().ak_public());
        V::TPM2B_PUBLIC ak = {};
        if (V::Tpm2_Unmarshal_TPM2B_PUBLIC(ak_.data(), static_cast<uint32_t>(ak_.size()), &ak) == 0 ||
            !Tpm2::VerifyAkPublic(ak.publicArea)) {
          return Error("attest_invalid_input");
        }
        secret_ = Sha256(std::string("fake secret"));
        Bytes blob;
        Bytes encrypted;
        if (!Tpm2::MakeCredential(B(m.create_ak_response().ek_public()), ak_, secret_, &blob, &encrypted)) {
          return Error("attest_failed");
        }
        auto* r = out.add_messages()->mutable_activate_ak_request();
        r->set_credential_blob(S(blob));
        r->set_encrypted_secret(S(encrypted));
        state_ = 1;
      } else if (m.has_activate_ak_response()) {
        Bytes want = {0x00, 0x20};
        want.insert(want.end(), secret_.begin(), secret_.end());
        if (state_ != 1) {
          return Error("attest_invalid_state");
        }
        if (B(m.activate_ak_response().cert_info()) != want) {
          return Error("attest_invalid_input");
        }
        nonce_ = Sha256(std::string("fake nonce"));
        Bytes qualifying = {0x00, 0x20};
        qualifying.insert(qualifying.end(), nonce_.begin(), nonce_.end());
        auto* q = out.add_messages()->mutable_quote_request();
        q->set_qualifying_data(S(qualifying));
        q->set_sig_scheme(S(Tpm2::QuoteSigScheme()));
        q->set_pcr_selection(S(Tpm2::RequiredPcrSelection()));
        out.add_messages()->mutable_event_log_request();
        state_ = 2;
      } else if (m.has_quote_response()) {
        quote_ = m.quote_response();
        ++answered_;
      } else {
        log_complete_ = m.event_log_response().complete();
        ++answered_;
      }
    }
    if (answered_ == 2) {
      return Finish();
    }
    return Contexts(out);
  }

  std::string ek_pem_seen_;
  std::string certificate_seen_;

 private:
  Json Contexts(const Context& out) {
    return {{"output", {{"contexts", {Base64Encode(B(out.SerializeAsString()))}}}}};
  }
  Json Error(const std::string& suffix) {
    return {{"error",
             {{"error_type", "INVALID_ARGUMENT"},
              {"messages", {{{"id", kReportPrefix + suffix}, {"default_message", ""}, {"args", Json::array()}}}}}}};
  }
  // Finish checks the quote signature and nonce; the PCR and log checks
  // are the verification library's own tests' business.
  Json Finish() {
    V::QuoteEvidence evidence = {};
    std::string quoted = quote_.quoted();
    std::string signature = quote_.signature();
    evidence.quote = {quoted.size(), reinterpret_cast<const uint8_t*>(quoted.data())};
    evidence.signature = {signature.size(), reinterpret_cast<const uint8_t*>(signature.data())};
    if (V::VerifyQuoteSignature(&evidence, {ak_.size(), ak_.data()}) != V::kVerifyOk ||
        V::VerifyQuoteNonce(&evidence, {nonce_.size(), nonce_.data()}) != V::kVerifyOk ||
        quote_.pcr_read_results_size() != 2) {
      return Error("attest_verify_failed");
    }
    if (!log_complete_) {
      return Error("attest_incomplete");
    }
    return {{"output", {{"documents", {{{"type", "KMS_AUTH_JWT"}, {"document", "header.claims.signature"}}}}}}};
  }

  int state_ = 0;
  int answered_ = 0;
  bool log_complete_ = false;
  Bytes ak_;
  Bytes secret_;
  Bytes nonce_;
  attestation::proto::QuoteResponse quote_;
};

// FakeServer serves POST /api on a loopback port with keep-alive, one
// connection at a time, and counts the connections it accepted.
class FakeServer {
 public:
  FakeServer() {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    EXPECT_EQ(0, bind(listen_fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)));
    EXPECT_EQ(0, listen(listen_fd_, 8));
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeServer() {
    shutdown(listen_fd_, SHUT_RDWR);
    close(listen_fd_);
    thread_.join();
  }
  uint16_t Port() const { return port_; }
  int Connections() const { return connections_; }
  FakeReport report;

 private:
  void Serve() {
    for (;;) {
      int fd = accept(listen_fd_, nullptr, nullptr);
      if (fd < 0) {
        return;
      }
      ++connections_;
      std::string buf;
      char chunk[4096];
      for (;;) {
        size_t end = buf.find("\r\n\r\n");
        if (end != std::string::npos) {
          size_t cl = buf.find("Content-Length: ");
          size_t body_len = cl == std::string::npos ? 0 : std::stoul(buf.substr(cl + 16));
          if (buf.size() >= end + 4 + body_len) {
            Json request = Json::parse(buf.substr(end + 4, body_len));
            buf.erase(0, end + 4 + body_len);
            Json reply = {{"jsonrpc", "2.0"}, {"id", request["id"]}, {"result", report.Turn(request)}};
            std::string body = reply.dump();
            std::string head = "HTTP/1.1 200 OK\r\nContent-Type: application/vnd.quarro.lumen.cleanjson\r\n"
                               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
            std::string all = head + body;
            send(fd, all.data(), all.size(), MSG_NOSIGNAL);
            continue;
          }
        }
        ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n <= 0) {
          break;
        }
        buf.append(chunk, static_cast<size_t>(n));
      }
      close(fd);
    }
  }

  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::atomic<int> connections_{0};
  std::thread thread_;
};

TEST(AgentAttest, CompletesAllFourTurnsOnOneConnection) {
  FakeServer server;
  std::unique_ptr<HostTpm> tpm = MakeSoftwareHost();
  AttestResult r = Attest(tpm.get(), "127.0.0.1", server.Port(), AttestOptions());
  ASSERT_TRUE(r.ok) << r.failure << r.error_id;
  EXPECT_EQ(4, r.turns);
  EXPECT_EQ(4u, r.turn_seconds.size());
  EXPECT_EQ(kSessionId, r.session_id);
  ASSERT_EQ(1u, r.documents.size());
  EXPECT_EQ("KMS_AUTH_JWT", r.documents[0].first);
  EXPECT_EQ(1, server.Connections());
  EXPECT_EQ(r.ek_public_pem, server.report.ek_pem_seen_);
  EXPECT_EQ("", server.report.certificate_seen_);
}

TEST(AgentAttest, EachFaultGivesItsReportError) {
  const struct {
    const char* name;
    Fault fault;
    bool log_complete;
    const char* error;
  } kCases[] = {
      {"tampered AK", Fault::kTamperedAk, true, "attest_invalid_input"},
      {"wrong credential", Fault::kWrongCredential, true, "attest_invalid_input"},
      {"out of order", Fault::kOutOfOrder, true, "attest_invalid_state"},
      {"unknown session", Fault::kUnknownSession, true, "attest_unknown_session"},
      {"two responses in one holder", Fault::kBothResponsesInOne, true, "attest_invalid_input"},
      {"log not declared complete", Fault::kNone, false, "attest_incomplete"},
  };
  std::unique_ptr<HostTpm> tpm = MakeSoftwareHost();
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    FakeServer server;
    AttestOptions options;
    options.fault = c.fault;
    options.log_complete = c.log_complete;
    AttestResult r = Attest(tpm.get(), "127.0.0.1", server.Port(), options);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ("", r.failure);
    EXPECT_EQ("INVALID_ARGUMENT", r.error_type);
    EXPECT_EQ(std::string(kReportPrefix) + c.error, r.error_id);
  }
}

TEST(AgentAttest, StopsAfterMaxTurns) {
  FakeServer server;
  std::unique_ptr<HostTpm> tpm = MakeSoftwareHost();
  AttestOptions options;
  options.max_turns = 1;
  AttestResult r = Attest(tpm.get(), "127.0.0.1", server.Port(), options);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(1, r.turns);
  EXPECT_EQ(kSessionId, r.session_id);
}

TEST(AgentAttest, ReportsAnUnreachableDaemon) {
  uint16_t port;
  {
    FakeServer server;  // bound, then closed: nothing listens there now
    port = server.Port();
  }
  std::unique_ptr<HostTpm> tpm = MakeSoftwareHost();
  AttestResult r = Attest(tpm.get(), "127.0.0.1", port, AttestOptions());
  EXPECT_FALSE(r.ok);
  EXPECT_NE(std::string::npos, r.failure.find("HTTP")) << r.failure;
}

TEST(AgentAttest, SwtpmHostSendsItsEkCertificate) {
  Testing::SwtpmProcess swtpm;
  ASSERT_TRUE(swtpm.Setup() && swtpm.Start()) << swtpm.SetupLog();
  std::string error;
  std::unique_ptr<HostTpm> tpm = OpenSwtpmHost(swtpm.Port(), &error);
  ASSERT_NE(nullptr, tpm) << error;
  FakeServer server;
  AttestOptions options;
  options.use_certificate = true;
  options.boot.txt = true;
  AttestResult r = Attest(tpm.get(), "127.0.0.1", server.Port(), options);
  ASSERT_TRUE(r.ok) << r.failure << r.error_id;
  EXPECT_EQ(0u, server.report.certificate_seen_.find("-----BEGIN CERTIFICATE-----"));
  EXPECT_EQ("", server.report.ek_pem_seen_);
}

}  // namespace
}  // namespace Witnessd::Agent
