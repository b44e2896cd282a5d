#include "tests/support/DaemonProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Witnessd::Testing {
namespace fs = std::filesystem;

std::string MakeTempDir(const std::string& prefix) {
  std::string templ = (fs::temp_directory_path() / (prefix + "-XXXXXX")).string();
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  return buf.data();
}

void PrepareSysroot(const std::string& root) {
  for (const char* d : {"etc/quarro/cpservices/witnessd", "usr/lib/quarro/lumen", "usr/share/certs",
                        "var/lib/quarro/witnessd", "var/run/quarro", "var/log/quarro/witnessd"}) {
    fs::create_directories(fs::path(root) / d);
  }
  fs::path metadata = fs::path(WITNESSD_SOURCE_DIR) / "api/provider/attest_lumen_metadata.json";
  if (fs::exists(metadata)) {
    fs::copy_file(metadata, fs::path(root) / "usr/lib/quarro/lumen/attest_lumen_metadata.json",
                  fs::copy_options::overwrite_existing);
  }
}

namespace {

bool Bindable(int family, uint16_t port) {
  int fd = socket(family, SOCK_STREAM, 0);
  if (fd < 0) {
    return family == AF_INET6;  // no IPv6 on this host: only IPv4 matters
  }
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  int rc;
  if (family == AF_INET) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  } else {
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_port = htons(port);
    a.sin6_addr = in6addr_loopback;
    rc = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  }
  close(fd);
  return rc == 0;
}

}  // namespace

uint16_t FreePort() {
  // Ports are handed out from a per-process window so parallel test processes
  // rarely collide; each candidate is checked on both families.
  static std::atomic<uint32_t> next{0};
  uint32_t base = 20000 + (static_cast<uint32_t>(getpid()) * 37) % 30000;
  for (int tries = 0; tries < 2000; ++tries) {
    uint16_t port = static_cast<uint16_t>(base + (next++ % 15000));
    if (Bindable(AF_INET, port) && Bindable(AF_INET6, port)) {
      return port;
    }
  }
  throw std::runtime_error("no free port");
}

DaemonProcess::DaemonProcess(std::string sysroot, uint16_t port) : sysroot_(std::move(sysroot)), port_(port) {
  log_path_ = sysroot_ + "/witnessd.stderr";
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && !exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

bool DaemonProcess::Start() {
  int log_fd = open(log_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (log_fd < 0) {
    return false;
  }
  pid_ = fork();
  if (pid_ < 0) {
    close(log_fd);
    return false;
  }
  if (pid_ == 0) {
    dup2(log_fd, STDERR_FILENO);
    int null_fd = open("/dev/null", O_RDWR);
    dup2(null_fd, STDIN_FILENO);
    dup2(null_fd, STDOUT_FILENO);
    setenv("WITNESSD_SYSROOT", sysroot_.c_str(), 1);
    setenv("WITNESSD_PORT", std::to_string(port_).c_str(), 1);
    for (const auto& [name, value] : env_) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    if (launcher_.empty()) {
      execl(WITNESSD_BINARY, "witnessd", static_cast<char*>(nullptr));
    } else {
      std::vector<char*> argv;
      for (const std::string& a : launcher_) {
        argv.push_back(const_cast<char*>(a.c_str()));
      }
      argv.push_back(const_cast<char*>(WITNESSD_BINARY));
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
    }
    _exit(127);
  }
  close(log_fd);
  return true;
}

bool DaemonProcess::Running() {
  if (pid_ <= 0 || exited_) {
    return false;
  }
  int status;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    exited_ = true;
    status_ = status;
    return false;
  }
  return true;
}

bool DaemonProcess::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (Log().find(text) != std::string::npos) {
      return true;
    }
    if (!Running() || std::chrono::steady_clock::now() > deadline) {
      return Log().find(text) != std::string::npos;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int DaemonProcess::WaitExit(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (Running()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

namespace {

// CatchesSignal reads the process's caught-signal mask from /proc.
bool CatchesSignal(pid_t pid, int signo) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("SigCgt:", 0) == 0) {
      unsigned long long mask = std::strtoull(line.c_str() + 7, nullptr, 16);
      return (mask >> (signo - 1)) & 1;
    }
  }
  return false;
}

}  // namespace

void DaemonProcess::Signal(int signo) {
  if (pid_ <= 0 || exited_) {
    return;
  }
  // The daemon serves a moment before its termination handlers are in place;
  // a termination signal sent in between would kill it instead of stopping
  // it. Wait (bounded) until the handler is installed.
  if (signo == SIGTERM || signo == SIGINT) {
    for (int i = 0; i < 500 && Running() && !CatchesSignal(pid_, signo); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  kill(pid_, signo);
}

std::string DaemonProcess::Log() const {
  std::ifstream in(log_path_);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int DaemonProcess::CountInLog(const std::string& text) const {
  std::string log = Log();
  int n = 0;
  for (size_t pos = log.find(text); pos != std::string::npos; pos = log.find(text, pos + text.size())) {
    ++n;
  }
  return n;
}

}  // namespace Witnessd::Testing
