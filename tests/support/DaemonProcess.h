// Runs the real witnessd binary as a child process for tests: its own sysroot,
// its own port, standard error captured to a file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Witnessd::Testing {

// MakeTempDir creates a fresh directory under the system temp dir.
std::string MakeTempDir(const std::string& prefix);

// PrepareSysroot lays out |root| as the run script does: the directories the
// daemon uses and the API metadata file from the source tree.
void PrepareSysroot(const std::string& root);

// FreePort returns a TCP port that is currently free on both 127.0.0.1 and ::1.
uint16_t FreePort();

class DaemonProcess {
 public:
  DaemonProcess(std::string sysroot, uint16_t port);
  ~DaemonProcess();  // kills the child if it still runs

  // Extra environment variables for the child, set before Start.
  void SetEnv(const std::string& name, const std::string& value) { env_.emplace_back(name, value); }
  // A command that runs the daemon in its own process, such as
  // {"prlimit", "--nofile=64"}; the daemon's path is appended.
  void SetLauncher(std::vector<std::string> launcher) { launcher_ = std::move(launcher); }

  bool Start();
  // WaitForLog polls the captured standard error until |text| appears, the
  // child exits or |timeout| passes.
  bool WaitForLog(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // WaitExit returns the exit status, or -1 on timeout or death by signal.
  int WaitExit(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  void Signal(int signo);
  bool Running();

  std::string Log() const;
  int CountInLog(const std::string& text) const;
  uint16_t Port() const { return port_; }
  const std::string& Sysroot() const { return sysroot_; }
  pid_t Pid() const { return pid_; }

 private:
  std::string sysroot_;
  uint16_t port_;
  std::vector<std::pair<std::string, std::string>> env_;
  std::vector<std::string> launcher_;
  std::string log_path_;
  pid_t pid_ = -1;
  int status_ = -1;
  bool exited_ = false;
};

}  // namespace Witnessd::Testing
