#include "tests/support/SwtpmProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/DaemonProcess.h"

namespace Witnessd::Testing {
namespace fs = std::filesystem;
namespace {

// The control socket is handed to swtpm as this descriptor.
constexpr int kCtrlFd = 3;

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteWhole(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// ListenLoopback binds 127.0.0.1:|port| (0 = any) and listens; returns the
// socket, or -1.
int ListenLoopback(uint16_t port, uint16_t* out_port) {
  int first = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (first < 0) {
    return -1;
  }
  // Kept above the descriptors the child moves them to, so that moving one
  // never overwrites the other.
  int fd = fcntl(first, F_DUPFD_CLOEXEC, 16);
  close(first);
  if (fd < 0) {
    return -1;
  }
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd, 16) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    close(fd);
    return -1;
  }
  *out_port = ntohs(a.sin_port);
  return fd;
}

bool Connects(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
  if (fd >= 0) {
    close(fd);
  }
  return ok;
}

// RunTool runs |argv| with standard output and error appended to |log| and
// the environment kept inside |home|; returns the exit status or -1.
int RunTool(const std::vector<std::string>& argv, const std::string& log, const std::string& home) {
  // Everything the child needs is built before fork: a child of a threaded
  // process may only call async-signal-safe functions.
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  // swtpm_setup also looks for user configuration and writes its scratch
  // files under these; keep both inside the test's directory.
  std::vector<std::string> env_text = {"XDG_CONFIG_HOME=" + home, "TMPDIR=" + home};
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry(*e);
    if (entry.rfind("XDG_CONFIG_HOME=", 0) != 0 && entry.rfind("TMPDIR=", 0) != 0) {
      env_text.push_back(entry);
    }
  }
  std::vector<char*> env;
  for (std::string& e : env_text) {
    env.push_back(e.data());
  }
  env.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    return -1;
  }
  if (pid == 0) {
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (out >= 0) {
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
    }
    execvpe(args[0], args.data(), env.data());
    _exit(127);
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

}  // namespace

SwtpmProcess::SwtpmProcess() : dir_(MakeTempDir("witnessd-swtpm")) {
  fs::create_directories(dir_ + "/state");
  fs::create_directories(dir_ + "/localca");
  fs::create_directories(dir_ + "/xdg");
}

SwtpmProcess::~SwtpmProcess() {
  Stop();
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

bool SwtpmProcess::Setup() {
  // The local CA keeps its keys and serial number in the temp directory,
  // never in the host's shared CA directory.
  const std::string ca = dir_ + "/localca";
  WriteWhole(dir_ + "/swtpm-localca.conf", "statedir = " + ca + "\nsigningkey = " + ca +
                                               "/signkey.pem\nissuercert = " + ca +
                                               "/issuercert.pem\ncertserial = " + ca + "/certserial\n");
  WriteWhole(dir_ + "/swtpm-localca.options",
             "--platform-manufacturer Witnessd\n--platform-version 2.1\n--platform-model TestHost\n");
  WriteWhole(dir_ + "/swtpm_setup.conf", "create_certs_tool = swtpm_localca\ncreate_certs_tool_config = " +
                                             dir_ + "/swtpm-localca.conf\ncreate_certs_tool_options = " +
                                             dir_ + "/swtpm-localca.options\nactive_pcr_banks = sha256\n");
  int rc = RunTool({"swtpm_setup", "--tpm2", "--tpmstate", dir_ + "/state", "--create-ek-cert",
                    "--create-platform-cert", "--pcr-banks", "sha256", "--config", dir_ + "/swtpm_setup.conf",
                    "--overwrite"},
                   dir_ + "/setup.log", dir_ + "/xdg");
  return rc == 0;
}

bool SwtpmProcess::Start() {
  if (pid_ > 0) {
    return true;
  }
  // The TCTI finds the control channel at the TPM port + 1. The control
  // socket is bound here and handed over, so that port cannot be taken; the
  // TPM port is checked free and then bound by swtpm itself (it reads an
  // inherited server descriptor as a connection, not a listener).
  int ctrl_fd = -1;
  for (int tries = 0; tries < 100 && ctrl_fd < 0; ++tries) {
    uint16_t port = 0;
    int probe = ListenLoopback(0, &port);
    if (probe < 0) {
      continue;
    }
    close(probe);
    if (port == 65535) {
      continue;
    }
    uint16_t ctrl_port = 0;
    ctrl_fd = ListenLoopback(static_cast<uint16_t>(port + 1), &ctrl_port);
    port_ = port;
  }
  if (ctrl_fd < 0) {
    return false;
  }
  const std::string log = dir_ + "/swtpm.log";
  const std::string state_arg = "dir=" + dir_ + "/state";
  const std::string server_arg = "type=tcp,bindaddr=127.0.0.1,port=" + std::to_string(port_);
  const std::string ctrl_arg = "type=tcp,fd=" + std::to_string(kCtrlFd);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive a crashed test
    dup2(ctrl_fd, kCtrlFd);  // dup2 clears close-on-exec on the copy
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (out >= 0) {
      dup2(out, STDOUT_FILENO);
      dup2(out, STDERR_FILENO);
    }
    execlp("swtpm", "swtpm", "socket", "--tpm2", "--tpmstate", state_arg.c_str(), "--server",
           server_arg.c_str(), "--ctrl", ctrl_arg.c_str(), "--flags", "not-need-init,startup-clear",
           static_cast<char*>(nullptr));
    _exit(127);
  }
  close(ctrl_fd);
  if (pid_ <= 0) {
    return false;
  }
  // Ready once the TPM port accepts a connection.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    if (Connects(port_)) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Stop();
  return false;
}

void SwtpmProcess::Stop() {
  if (pid_ <= 0) {
    return;
  }
  kill(pid_, SIGTERM);
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  pid_ = -1;
}

std::string SwtpmProcess::Tcti() const { return "swtpm:host=127.0.0.1,port=" + std::to_string(port_); }

std::string SwtpmProcess::RootCaPem() const { return ReadWhole(dir_ + "/localca/swtpm-localca-rootca-cert.pem"); }

std::string SwtpmProcess::IssuerCaPem() const { return ReadWhole(dir_ + "/localca/issuercert.pem"); }

std::string SwtpmProcess::SetupLog() const {
  return ReadWhole(dir_ + "/setup.log") + ReadWhole(dir_ + "/swtpm.log");
}

}  // namespace Witnessd::Testing
