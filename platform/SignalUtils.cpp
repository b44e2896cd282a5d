#include "platform/SignalUtils.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <thread>

namespace Orm::Common::SignalUtils {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT};

int g_pipe[2] = {-1, -1};
std::mutex g_mutex;
std::function<void(int)> g_handler;
bool g_installed = false;

void OnSignal(int signo) {
  int saved = errno;
  unsigned char byte = static_cast<unsigned char>(signo);
  if (g_pipe[1] >= 0) {
    (void)!write(g_pipe[1], &byte, 1);
  }
  errno = saved;
}

void Watch() {
  for (;;) {
    unsigned char byte;
    ssize_t n = read(g_pipe[0], &byte, 1);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n != 1) {
      return;
    }
    std::function<void(int)> handler;
    {
      std::lock_guard<std::mutex> lock(g_mutex);
      if (!g_installed) {
        continue;
      }
      handler = g_handler;
    }
    if (handler) {
      handler(byte);
    }
  }
}

}  // namespace

bool SignalsInit(std::function<void(int)> handler) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_pipe[0] < 0) {
    if (pipe2(g_pipe, O_CLOEXEC) != 0) {
      return false;
    }
    std::thread(Watch).detach();
  }
  g_handler = std::move(handler);
  struct sigaction sa = {};
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  for (int signo : kSignals) {
    if (sigaction(signo, &sa, nullptr) != 0) {
      return false;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  g_installed = true;
  return true;
}

void SignalsExit() {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (!g_installed) {
    return;
  }
  for (int signo : kSignals) {
    signal(signo, SIG_DFL);
  }
  g_installed = false;
}

}  // namespace Orm::Common::SignalUtils
