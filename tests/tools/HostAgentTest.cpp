// witnessd-agent as a real host runs it: the binary, a booted swtpm reached
// only through its TCTI (the agent cannot reset or measure it), an event log
// file the host's firmware would have written, the real daemon over HTTP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ApiClient.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/SwtpmProcess.h"
#include "tests/trusted/ImgdbFixture.h"
#include "tools/BootLog.h"
#include "tools/HostTpm.h"
#include "tools/HttpClient.h"

extern char** environ;

namespace Witnessd::Testing {
namespace {

constexpr const char* kServing = "HTTP endpoint listening on TCP port";
constexpr const char* kVerifyFailed =
    "com.quarro.hyv.attestation.report.attest_verify_failed: Attestation failed to verify software measurements.";

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteBytes(const std::string& path, const Agent::Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void Shell(const std::string& command) { ASSERT_EQ(0, std::system(command.c_str())) << command; }

// A witnessd-agent process, its standard output and error in files.
class AgentRun {
 public:
  AgentRun(const std::string& dir, const std::vector<std::string>& args)
      : out_(dir + "/agent.out"), err_(dir + "/agent.err") {
    std::vector<std::string> all = {WITNESSD_AGENT_PATH};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) {
      argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid_, all[0].c_str(), &actions, nullptr, argv.data(), environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
  }
  ~AgentRun() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }

  // Wait gives the exit status, -1 when it has not ended within a minute
  // (then it is killed) or died by a signal.
  int Wait() {
    for (int i = 0; pid_ > 0 && i < 600; ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return -1;
  }
  // WaitFor polls until |done| holds, at most a minute.
  template <typename Done>
  bool WaitFor(Done done) {
    for (int i = 0; i < 600; ++i) {
      if (done()) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  void Signal(int signo) { kill(pid_, signo); }
  std::string Out() const { return ReadAll(out_); }
  std::string Err() const { return ReadAll(err_); }

 private:
  std::string out_;
  std::string err_;
  pid_t pid_ = -1;
};

// One daemon trusting the swtpm's EK and the synthetic boot's image; the
// swtpm booted and measured once, as the host's firmware would have.
class HostAgent : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new std::string(MakeTempDir("witnessd-host-agent"));
    swtpm_ = new SwtpmProcess();
    ASSERT_TRUE(swtpm_->Setup() && swtpm_->Start()) << swtpm_->SetupLog();
    std::string sysroot = *dir_ + "/sysroot";
    PrepareSysroot(sysroot);
    std::string token = InstallTrustedIssuer(sysroot);
    ImgdbFixture imgdb(sysroot);
    daemon_ = new DaemonProcess(sysroot, FreePort());
    ASSERT_TRUE(daemon_->Start());
    ASSERT_TRUE(daemon_->WaitForLog(kServing)) << daemon_->Log();

    std::string error;
    std::unique_ptr<Agent::HostTpm> tpm = Agent::OpenSwtpmHost(swtpm_->Port(), &error);
    ASSERT_NE(nullptr, tpm) << error;
    Agent::BootPlan boot;
    std::vector<Agent::BootEvent> events = Agent::HypervisorBootEvents(boot);
    ASSERT_TRUE(Agent::MeasureBoot(tpm.get(), boot, events)) << tpm->LastError();
    WriteBytes(*dir_ + "/boot.log", Agent::WriteEventLog(events));
    // What a host that booted with TXT would have logged.
    Agent::BootPlan txt;
    txt.txt = true;
    WriteBytes(*dir_ + "/txt.log", Agent::WriteEventLog(Agent::HypervisorBootEvents(txt)));
    Agent::Bytes ek;
    std::string ek_pem;
    std::string cert_pem;
    ASSERT_TRUE(tpm->EkPublic(&ek) && Agent::EkPublicPem(ek, &ek_pem) && tpm->EkCertificatePem(&cert_pem))
        << tpm->LastError();
    std::ofstream(*dir_ + "/ek-cert.pem") << cert_pem;

    ApiClient admin(daemon_->Port(), token);
    ApiReply r = admin.Invoke("com.quarro.hyv.attestation.tpm2.endorsement_keys", "create",
                              {{"name", "host"}, {"public_key", ek_pem}});
    ASSERT_TRUE(r.ok) << r.raw;
    r = admin.Invoke("com.quarro.hyv.attestation.os.hyv.base_images", "import",
                     {{"imgdb", ApiClient::Base64(imgdb.Make(Agent::ImageDatabaseFlags(boot)))}});
    ASSERT_TRUE(r.ok) << r.raw;
  }
  static void TearDownTestSuite() {
    delete daemon_;
    delete swtpm_;
    std::filesystem::remove_all(*dir_);
    delete dir_;
  }

  // ApiRequests counts the requests the daemon has answered.
  static long ApiRequests() {
    Agent::HttpClient http("127.0.0.1", daemon_->Port());
    int status = 0;
    std::string body;
    std::string error;
    EXPECT_TRUE(http.Get("/metrics", &status, &body, &error)) << error;
    std::istringstream lines(body);
    long total = 0;
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("witnessd_api_request_seconds_count", 0) == 0) {
        total += std::stol(line.substr(line.rfind(' ') + 1));
      }
    }
    return total;
  }

  std::vector<std::string> Args(const std::vector<std::string>& extra, uint16_t daemon_port = 0) {
    std::vector<std::string> args = {"--tcti", swtpm_->Tcti(), "--port",
                                     std::to_string(daemon_port != 0 ? daemon_port : daemon_->Port())};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  static inline std::string* dir_ = nullptr;
  static inline SwtpmProcess* swtpm_ = nullptr;
  static inline DaemonProcess* daemon_ = nullptr;
};

TEST_F(HostAgent, AttestsOnceOrSaysWhyNot) {
  const std::string d = *dir_;
  // Certificates of a key that is not the TPM's EK, PEM and DER; the
  // swtpm's own certificate as DER; a log past the size bound.
  Shell("cd " + d +
        " && openssl req -x509 -newkey rsa:2048 -nodes -keyout other.key -out other.pem -subj /CN=other -days 1"
        " 2>/dev/null && openssl x509 -in other.pem -outform DER -out other.der"
        " && openssl x509 -in ek-cert.pem -outform DER -out ek-cert.der && truncate -s 16777217 huge.log");
  const uint16_t nobody = FreePort();
  const std::string unreachable_tcti = "swtpm:host=127.0.0.1,port=" + std::to_string(nobody);
  const struct {
    const char* name;
    std::vector<std::string> args;
    int status;
    bool reaches_daemon;      // false: the agent stops before it sends anything
    const char* err;          // substring of standard error
    std::string before = "";  // a shell command run first
  } kRows[] = {
      {"the EK certificate from NV, documents on stdout", Args({"--event-log", d + "/boot.log"}), 0, true, ""},
      {"the EK certificate from a DER file, both documents to --out",
       Args({"--event-log", d + "/boot.log", "--ek-certificate", d + "/ek-cert.der", "--document", "KMS_AUTH_JWT",
             "--document", "REPORTING_JWT", "--out", d + "/documents.json"}),
       0, true, ""},
      {"a log of a boot the PCRs do not hold", Args({"--event-log", d + "/txt.log"}), 1, true, kVerifyFailed},
      {"a certificate of another key (PEM)",
       Args({"--event-log", d + "/boot.log", "--ek-certificate", d + "/other.pem"}), 2, false, "is not the TPM's EK"},
      {"a certificate of another key (DER)",
       Args({"--event-log", d + "/boot.log", "--ek-certificate", d + "/other.der"}), 2, false, "is not the TPM's EK"},
      {"a certificate file that is none", Args({"--event-log", d + "/boot.log", "--ek-certificate", d + "/boot.log"}),
       2, false, "holds no X.509 certificate"},
      {"a log past the size bound", Args({"--event-log", d + "/huge.log"}), 2, false, "is larger than 16777216 bytes"},
      {"no log", Args({"--event-log", d + "/missing.log"}), 2, false, "cannot open"},
      {"an unreachable TCTI",
       {"--tcti", unreachable_tcti, "--event-log", d + "/boot.log"},
       2,
       false,
       "cannot open the TPM"},
      {"an unreachable daemon", Args({"--event-log", d + "/boot.log"}, nobody), 2, false, "cannot connect"},
      {"a test-only option", Args({"--txt"}), 2, false, "usage:"},
      // Last: the TPM keeps no EK from here on.
      {"no persistent EK: the EK of the default template", Args({"--event-log", d + "/boot.log"}), 0, true, "",
       "tpm2_evictcontrol -T " + swtpm_->Tcti() + " -C o -c 0x81010001 > /dev/null"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    if (!row.before.empty()) {
      Shell(row.before);
    }
    long before = ApiRequests();
    AgentRun run(d, row.args);
    ASSERT_EQ(row.status, run.Wait()) << run.Err() << daemon_->Log();
    EXPECT_NE(std::string::npos, run.Err().find(row.err)) << run.Err();
    EXPECT_EQ(row.reaches_daemon, ApiRequests() > before);
    if (row.status != 0) {
      EXPECT_EQ("", run.Out());
      continue;
    }
    std::string out = run.Out().empty() ? ReadAll(d + "/documents.json") : run.Out();
    nlohmann::json json = nlohmann::json::parse(out, nullptr, false);
    ASSERT_TRUE(json.contains("documents")) << out;
    for (const nlohmann::json& doc : json["documents"]) {
      EXPECT_EQ(0u, doc.value("token", "").rfind("ey", 0)) << out;
    }
    if (!run.Out().empty()) {
      EXPECT_EQ("KMS_AUTH_JWT", json["documents"][0].value("type", "")) << out;
      continue;
    }
    EXPECT_EQ(2u, json["documents"].size()) << out;
    struct stat st = {};
    ASSERT_EQ(0, stat((d + "/documents.json").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
  }
}

// --interval: attestations go on, failures are retried and logged, and a
// stop signal ends the agent with status 0.
TEST_F(HostAgent, IntervalRunsUntilSignalled) {
  const std::string d = *dir_;
  const struct {
    const char* name;
    uint16_t daemon_port;
    int signo;
  } kRows[] = {
      {"attested, then SIGTERM", 0, SIGTERM},
      {"retrying an unreachable daemon, then SIGINT", FreePort(), SIGINT},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove(d + "/interval.json");
    AgentRun run(d, Args({"--event-log", d + "/boot.log", "--interval", "3600", "--out", d + "/interval.json"},
                         row.daemon_port));
    if (row.daemon_port == 0) {
      ASSERT_TRUE(run.WaitFor([&] { return std::filesystem::exists(d + "/interval.json"); })) << run.Err();
      EXPECT_NE(std::string::npos, ReadAll(d + "/interval.json").find("\"token\":\"ey"));
    } else {
      ASSERT_TRUE(run.WaitFor([&] { return run.Err().find("next attempt in") != std::string::npos; })) << run.Err();
      EXPECT_NE(std::string::npos, run.Err().find("cannot connect"));
    }
    run.Signal(row.signo);
    EXPECT_EQ(0, run.Wait()) << run.Err();
  }
}

}  // namespace
}  // namespace Witnessd::Testing
