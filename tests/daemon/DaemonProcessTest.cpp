// The daemon as a real process: start-up, exit statuses and exit lines.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <vector>

#include "platform/lumen/Audit.h"
#include "tests/api/TestTokens.h"
#include "tests/support/ApiClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/RawClient.h"

namespace {

using Witnessd::Testing::ApiClient;
using Witnessd::Testing::ApiReply;
using Witnessd::Testing::DaemonProcess;
using Witnessd::Testing::FreePort;
using Witnessd::Testing::MakeTempDir;
using Witnessd::Testing::PrepareSysroot;
using Witnessd::Testing::RawClient;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kServing = "HTTP endpoint listening on TCP port";

// A listening socket that keeps a port busy for the duration of a test.
class PortBlocker {
 public:
  PortBlocker(int family, uint16_t port) {
    fd_ = socket(family, SOCK_STREAM, 0);
    int one = 1;
    if (family == AF_INET6) {
      setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
      sockaddr_in6 a{};
      a.sin6_family = AF_INET6;
      a.sin6_port = htons(port);
      a.sin6_addr = in6addr_loopback;
      ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    } else {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_port = htons(port);
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      ok_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    }
    ok_ = ok_ && listen(fd_, 1) == 0;
  }
  ~PortBlocker() { close(fd_); }
  bool ok() const { return ok_; }

 private:
  int fd_ = -1;
  bool ok_ = false;
};

bool CanConnect(int family, uint16_t port) {
  int fd = socket(family, SOCK_STREAM, 0);
  int rc;
  if (family == AF_INET6) {
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    a.sin6_addr = in6addr_loopback;
    rc = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  } else {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    rc = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  }
  close(fd);
  return rc == 0;
}

// The call any client may make, anonymously: its head, and its body in two
// halves. A connection that has sent the head and the first half is being
// served.
const std::string kBody =
    R"({"jsonrpc":"2.0","id":"1","method":"invoke","params":{"serviceId":)"
    R"("com.quarro.lumen.std.introspection.provider","operationId":"get","ctx":{"securityCtx":{}},"input":{}}})";
const std::string kHead =
    "POST /api HTTP/1.1\r\nContent-Type: application/vnd.quarro.lumen.cleanjson\r\nContent-Length: " +
    std::to_string(kBody.size()) + "\r\n\r\n";
const std::string kHalfHead = kHead.substr(0, kHead.size() / 2);
const std::string kHalfCall = kHead + kBody.substr(0, kBody.size() / 2);

// Open connects, makes one whole call first when |after_call|, then sends
// |bytes|; null once the daemon failed to take a connection or answer.
std::unique_ptr<RawClient> Open(uint16_t port, bool after_call, const std::string& bytes) {
  auto c = std::make_unique<RawClient>(port);
  RawClient::Response reply;
  bool ok = (!after_call || (c->Send(kHead + kBody) && c->ReadResponse(&reply) && reply.status == 200)) &&
            c->Send(bytes) && !::testing::Test::HasFailure();
  return ok ? std::move(c) : nullptr;
}

// FinishCall sends the rest of a kHalfCall and tells whether the call is
// answered with the operation's output.
bool FinishCall(RawClient& c) {
  RawClient::Response reply;
  return c.Send(kBody.substr(kBody.size() / 2)) && c.ReadResponse(&reply) && reply.status == 200 &&
         reply.body.find(R"("output")") != std::string::npos;
}

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    sysroot_ = MakeTempDir("witnessd-daemon");
    PrepareSysroot(sysroot_);
  }
  void TearDown() override {
    if (!HasFailure()) {
      fs::remove_all(sysroot_);
    }
  }
  void WriteSettings(const std::string& xml) {
    std::ofstream(sysroot_ + "/etc/quarro/cpservices/witnessd/config.xml") << xml;
  }
  std::string sysroot_;
};

TEST_F(Daemon, ServesAndEndsWithStatusZeroOnTerminationSignals) {
  for (int signo : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(signo);
    DaemonProcess d(sysroot_, FreePort());
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
    EXPECT_TRUE(CanConnect(AF_INET, d.Port()));
    RawClient health(d.Port());
    RawClient::Response reply;
    EXPECT_TRUE(health.Send("GET /healthz HTTP/1.1\r\n\r\n") && health.ReadResponse(&reply));
    EXPECT_EQ("200 ok\n", std::to_string(reply.status) + " " + reply.body);
    d.Signal(signo);
    EXPECT_EQ(0, d.WaitExit()) << d.Log();
    EXPECT_EQ(1, d.CountInLog("Exiting with status 0")) << d.Log();
    EXPECT_EQ(0, d.CountInLog("Exiting with status 1"));
  }
}

TEST_F(Daemon, BothFamiliesTakenIsAStartFailure) {
  uint16_t port = FreePort();
  PortBlocker v4(AF_INET, port);
  PortBlocker v6(AF_INET6, port);
  ASSERT_TRUE(v4.ok());
  DaemonProcess d(sysroot_, port);
  ASSERT_TRUE(d.Start());
  EXPECT_EQ(1, d.WaitExit()) << d.Log();
  EXPECT_EQ(1, d.CountInLog("HTTP endpoint failed to start. Exiting.")) << d.Log();
  EXPECT_EQ(1, d.CountInLog("Exiting with status 1")) << d.Log();
  EXPECT_EQ(1, d.CountInLog("IPv4 Failed to listen on: 127.0.0.1:" + std::to_string(port)));
}

TEST_F(Daemon, ServesOnIpv4WhenIpv6LoopbackIsTaken) {
  uint16_t port = FreePort();
  PortBlocker v6(AF_INET6, port);
  if (!v6.ok()) {
    GTEST_SKIP() << "no IPv6 loopback on this host";
  }
  DaemonProcess d(sysroot_, port);
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
  EXPECT_TRUE(CanConnect(AF_INET, port));
  EXPECT_EQ(1, d.CountInLog("IPv6 Failed to listen on: [::1]:" + std::to_string(port))) << d.Log();
  d.Signal(SIGTERM);
  EXPECT_EQ(0, d.WaitExit());
}

TEST_F(Daemon, SettingsFileChoosesTheLogLevel) {
  // At "error" the informational serving line is not written; at "info" it is.
  const struct {
    const char* level;
    bool serving_line;
  } kCases[] = {{"error", false}, {"warning", false}, {"info", true}, {"trivia", true}};
  for (const auto& tc : kCases) {
    SCOPED_TRACE(tc.level);
    WriteSettings(std::string("<config><log><level>") + tc.level + "</level></log></config>");
    uint16_t port = FreePort();
    DaemonProcess d(sysroot_, port);
    ASSERT_TRUE(d.Start());
    // Wait until it serves (a connection succeeds), whatever it logs.
    for (int i = 0; i < 1500 && !CanConnect(AF_INET, port) && d.Running(); ++i) {
      usleep(20000);
    }
    ASSERT_TRUE(d.Running()) << d.Log();
    d.Signal(SIGTERM);
    EXPECT_EQ(0, d.WaitExit()) << d.Log();
    EXPECT_EQ(tc.serving_line ? 1 : 0, d.CountInLog(kServing)) << d.Log();
    // The exit line is a warning: written at every level but "error".
    EXPECT_EQ(std::string(tc.level) == "error" ? 0 : 1, d.CountInLog("Exiting with status 0")) << d.Log();
  }
}

TEST_F(Daemon, BadSettingsEndStartupBeforeAnythingStarts) {
  const struct {
    const char* name;
    const char* xml;
    const char* problem;
  } kCases[] = {
      {"unknown level", "<config><log><level>chatty</level></log></config>", "chatty"},
      {"no I/O threads", "<config><hearth><threadPool><ioThreads>0</ioThreads></threadPool></hearth></config>",
       "ioThreads"},
      {"session limit not a number", "<config><maxSessions>many</maxSessions></config>", "maxSessions"},
      {"token validity not a number", "<config><tokenValiditySeconds>1h</tokenValiditySeconds></config>",
       "tokenValiditySeconds"},
      {"strict quote checks not a boolean", "<config><strictQuoteChecks>maybe</strictQuoteChecks></config>",
       "strictQuoteChecks"},
      {"connection cap not a number", "<config><maxConnections>many</maxConnections></config>", "maxConnections"},
  };
  for (const auto& tc : kCases) {
    SCOPED_TRACE(tc.name);
    WriteSettings(tc.xml);
    uint16_t port = FreePort();
    DaemonProcess d(sysroot_, port);
    ASSERT_TRUE(d.Start());
    EXPECT_EQ(1, d.WaitExit()) << d.Log();
    std::string log = d.Log();
    EXPECT_EQ(0u, log.find("Initializing hearth failed: settings file " + sysroot_ +
                           "/etc/quarro/cpservices/witnessd/config.xml"))
        << log;
    EXPECT_NE(std::string::npos, log.find(tc.problem)) << log;
    EXPECT_EQ(0, d.CountInLog("Exiting with status")) << log;
    EXPECT_FALSE(CanConnect(AF_INET, port));
  }
}

TEST_F(Daemon, BadPortVariableTakesTheErrorExit) {
  DaemonProcess d(sysroot_, FreePort());
  d.SetEnv("WITNESSD_PORT", "http");
  ASSERT_TRUE(d.Start());
  EXPECT_EQ(1, d.WaitExit()) << d.Log();
  EXPECT_EQ(1, d.CountInLog("Exiting with error: WITNESSD_PORT 'http' is not a TCP port")) << d.Log();
  EXPECT_EQ(1, d.CountInLog("Exiting with status 1"));
}

// A local client opens connections until the daemon can take no more,
// under a low open-files limit: the daemon neither crashes nor wedges and
// serves again once they close. Its default cap keeps it below the limit; a
// cap set above the limit runs into accept errors, which back off.
TEST_F(Daemon, ConnectionFloodNeitherCrashesNorWedges) {
  const struct {
    const char* name;
    const char* settings;
    const char* cap_line;
    const char* acceptor_line;
  } kCases[] = {
      {"default cap under the limit", "<config/>", "Max connections: 64", ";ConnectionLimit 64"},
      {"cap above the limit", "<config><maxConnections>1000</maxConnections></config>", "Max connections: 1000",
       ";DelayAcceptError"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
#ifdef WITNESSD_SANITIZED
    // Out of descriptors, the sanitizer runtime cannot probe memory (it needs
    // a pipe) and fails its own vtable checks: the back-off runs in the plain
    // build only.
    if (std::string(c.acceptor_line) == ";DelayAcceptError") {
      continue;
    }
#endif
    WriteSettings(c.settings);
    DaemonProcess d(sysroot_, FreePort());
    d.SetLauncher({"prlimit", "--nofile=128"});
    ASSERT_TRUE(d.Start());
    ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
    EXPECT_EQ(1, d.CountInLog(c.cap_line)) << d.Log();
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(d.Port());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> flood;
    for (int i = 0; i < 300; ++i) {
      int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));  // pending or refused: both fine
      flood.push_back(fd);
    }
    EXPECT_TRUE(d.WaitForLog(c.acceptor_line)) << d.Log();
    EXPECT_TRUE(d.Running());
    for (int fd : flood) {
      close(fd);
    }
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) {
      served = ApiClient(d.Port(), "").Invoke("com.quarro.lumen.std.introspection.provider", "get").ok;
      if (!served) {
        usleep(100000);
      }
    }
    EXPECT_TRUE(served) << d.Log();
    d.Signal(SIGTERM);
    EXPECT_EQ(0, d.WaitExit()) << d.Log();
  }
}

// An attacker sends tokens from a key the daemon does not trust, each
// claiming a one-megabyte subject: every refusal is audited with a bounded,
// marked subject, refusals past the cap are only counted, and the
// administrator is still served.
TEST_F(Daemon, RefusedTokensWithHugeSubjectsKeepTheAuditLogSmall) {
  std::string admin = Witnessd::Testing::InstallTrustedIssuer(sysroot_);
  DaemonProcess d(sysroot_, FreePort());
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
  fs::path audit_log = sysroot_ + kQrwAuditLogPath;
  auto size = [&] {
    std::error_code ec;
    uintmax_t n = fs::file_size(audit_log, ec);
    return ec ? uintmax_t{0} : n;
  };
  uintmax_t before = size();

  Witnessd::Testing::Pkey forger = Witnessd::Testing::MakeRsaKey();
  std::string subject = "admin\n" + std::string(1 << 20, 'A');
  ApiClient attacker(d.Port(),
                     Witnessd::Testing::MakeToken("RS256", forger.get(),
                                                  Witnessd::Testing::Claims(subject, {"Attestation.Administer"})));
  for (int i = 0; i < 20; ++i) {
    ApiReply r = attacker.Invoke("com.quarro.hyv.attestation.status", "get");
    EXPECT_EQ("UNAUTHENTICATED", r.error_type) << r.raw;
  }
  // The entries are written before the answers leave.
  uintmax_t growth = size() - before;
  RecordProperty("audit_log_growth_bytes", std::to_string(growth));
  EXPECT_LE(growth, 16u * 1024);
  std::ifstream in(audit_log);
  std::string line;
  int refusals = 0;
  while (std::getline(in, line)) {
    nlohmann::json entry = nlohmann::json::parse(line);
    if (entry["eventID"] == "authentication.failed") {
      ++refusals;
      EXPECT_EQ("unverified:admin\\u000aAAA", entry["subject"].get<std::string>().substr(0, 25));
    }
  }
  EXPECT_GE(refusals, 1);

  ApiReply served = ApiClient(d.Port(), admin).Invoke("com.quarro.hyv.attestation.status", "get");
  EXPECT_TRUE(served.ok) << served.raw;
}

// An attacker floods the daemon, far beyond its cap, with connections that
// never finish a request. A client is answered at once all the same, and a
// request being served, its body still on the way, keeps its place.
TEST_F(Daemon, IdleAndHalfSentConnectionsDoNotKeepClientsOut) {
  constexpr size_t kCap = 64;
  constexpr size_t kFlood = 600;
  const struct {
    bool after_call;
    const std::string& bytes;
  } kFloodKinds[] = {{false, ""}, {false, kHalfHead}, {true, ""}};  // taken in turn
  // Descriptors for the flood, in this process and the daemon it starts.
  rlimit limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
  // Timeouts far beyond the test: only eviction frees places.
  WriteSettings("<config><maxConnections>" + std::to_string(kCap) +
                "</maxConnections><headerTimeoutSeconds>300</headerTimeoutSeconds></config>");
  DaemonProcess d(sysroot_, FreePort());
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
  std::unique_ptr<RawClient> served = Open(d.Port(), false, kHalfCall);
  ASSERT_NE(nullptr, served);
  std::vector<std::unique_ptr<RawClient>> flood;
  for (size_t i = 0; i < kFlood; ++i) {
    flood.push_back(Open(d.Port(), kFloodKinds[i % 3].after_call, kFloodKinds[i % 3].bytes));
    ASSERT_NE(nullptr, flood.back()) << "flood connection " << i;
  }
  // The daemon takes the whole flood; it holds no more than the places the
  // served request leaves. (A connection the kernel queued late may still
  // take a place from another.)
  auto count_closed = [&flood] {
    return static_cast<size_t>(std::count_if(flood.begin(), flood.end(), [](auto& c) { return c->PeerClosed(); }));
  };
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
  while (count_closed() < kFlood - (kCap - 1) && !served->PeerClosed() && Clock::now() < deadline) {
    usleep(20000);
  }
  ASSERT_FALSE(served->PeerClosed()) << "the request being served lost its place";
  ASSERT_LE(kFlood - (kCap - 1), count_closed());
  EXPECT_EQ(1, d.CountInLog(".Acceptor info:;ConnectionLimit " + std::to_string(kCap)));

  Clock::time_point start = Clock::now();
  std::unique_ptr<RawClient> client = Open(d.Port(), false, kHalfCall);
  ASSERT_NE(nullptr, client);
  EXPECT_TRUE(FinishCall(*client));
  std::chrono::duration<double, std::milli> took = Clock::now() - start;
  EXPECT_LT(took.count(), 1000.0);
  RecordProperty("call_ms", std::to_string(took.count()));
  EXPECT_TRUE(FinishCall(*served));
  d.Signal(SIGTERM);
  EXPECT_EQ(0, d.WaitExit()) << d.Log();
}

// The daemon closes a connection whose request head is not complete within
// the head timeout, and a kept-alive one idle beyond the idle timeout; a
// request whose head is complete has the read timeout for its body.
TEST_F(Daemon, ConnectionsWithoutACompleteHeadAreClosedInTime) {
  WriteSettings(
      "<config><headerTimeoutSeconds>1</headerTimeoutSeconds><idleTimeoutSeconds>5</idleTimeoutSeconds></config>");
  DaemonProcess d(sysroot_, FreePort());
  ASSERT_TRUE(d.Start());
  ASSERT_TRUE(d.WaitForLog(kServing)) << d.Log();
  const struct {
    const char* name;
    bool after_call;
    const std::string& bytes;
    double closed_after_seconds;
  } kCases[] = {
      {"silent", false, "", 1},
      {"half a head", false, kHalfHead, 1},
      {"kept alive after a call", true, "", 5},
      {"half a head after a call", true, kHalfHead, 1},
  };
  std::unique_ptr<RawClient> served = Open(d.Port(), false, kHalfCall);
  ASSERT_NE(nullptr, served);
  std::vector<std::unique_ptr<RawClient>> connections;
  std::vector<std::optional<std::chrono::duration<double>>> closed_after(std::size(kCases));
  for (const auto& c : kCases) {
    connections.push_back(Open(d.Port(), c.after_call, c.bytes));
    ASSERT_NE(nullptr, connections.back()) << c.name;
  }
  Clock::time_point opened = Clock::now();
  Clock::time_point deadline = opened + std::chrono::seconds(15);
  while (std::count(closed_after.begin(), closed_after.end(), std::nullopt) > 0 && Clock::now() < deadline) {
    usleep(20000);
    for (size_t i = 0; i < connections.size(); ++i) {
      if (!closed_after[i] && connections[i]->PeerClosed()) {
        closed_after[i] = Clock::now() - opened;
      }
    }
  }
  for (size_t i = 0; i < std::size(kCases); ++i) {
    SCOPED_TRACE(kCases[i].name);
    ASSERT_TRUE(closed_after[i].has_value());
    // Generous on the late side; early by no more than the time the test
    // took to open the connections.
    EXPECT_GE(closed_after[i]->count(), kCases[i].closed_after_seconds - 0.5);
    EXPECT_LT(closed_after[i]->count(), kCases[i].closed_after_seconds + 2.5);
  }
  EXPECT_TRUE(FinishCall(*served));
  d.Signal(SIGTERM);
  EXPECT_EQ(0, d.WaitExit()) << d.Log();
}

}  // namespace
