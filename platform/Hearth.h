// The platform runtime: application identity, settings tree, thread pool,
// scheduler, main loop and named loggers.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace Hearth {

// Settings problems: a malformed file, a value of the wrong type, an unknown
// log level. The message names the file or key and the problem.
class SettingsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace System {

// QuickExit flushes standard streams and ends the process with |status| at
// once, without static destruction or joining threads.
[[noreturn]] void QuickExit(int status);

}  // namespace System

namespace Service {

struct AppInfo {
  std::string name;
  std::string version;
  uint32_t buildNumber = 0;
  uint32_t reserved = 0;
};

// Config is the settings tree: keys are element paths ("log/level"), each value
// has the type it was first set with. Values read from a settings file must
// parse as the type of the key they replace.
class Config {
 public:
  enum class Type { kString, kInt, kBool };

  void SetString(const std::string& key, const std::string& value);
  void SetInt(const std::string& key, int64_t value);
  void SetBool(const std::string& key, bool value);

  bool Has(const std::string& key) const;
  // Getters return |def| for a missing key and throw SettingsError when the
  // stored text does not parse as the requested type.
  std::string GetString(const std::string& key, const std::string& def = "") const;
  int64_t GetInt(const std::string& key, int64_t def) const;
  bool GetBool(const std::string& key, bool def) const;

  // LoadXmlFile overlays the leaf elements of an XML settings file. A missing
  // file changes nothing; an unreadable or malformed file, a duplicate key or
  // a value that does not fit its key's type throws SettingsError naming
  // |path|. Nothing is changed when it throws.
  void LoadXmlFile(const std::string& path);

 private:
  struct Value {
    Type type;
    std::string text;
  };
  std::map<std::string, Value> values_;
};

std::shared_ptr<Config> CreateScratchConfig();

class ThreadPool;
class Scheduler;

class App {
 public:
  App(const AppInfo& info, std::shared_ptr<Config> config);
  ~App();

  const AppInfo& Info() const { return info_; }
  Config& GetConfig() { return *config_; }
  ThreadPool& GetThreadPool() { return *pool_; }
  Scheduler& GetScheduler() { return *scheduler_; }

  // Run blocks the calling thread until Stop is called.
  void Run();
  void Stop();

 private:
  struct Loop;
  AppInfo info_;
  std::shared_ptr<Config> config_;
  std::unique_ptr<ThreadPool> pool_;
  std::unique_ptr<Scheduler> scheduler_;
  std::unique_ptr<Loop> loop_;
};

// ThreadPool runs posted tasks on at most |max_threads| threads, started on
// demand; tasks beyond that wait in order. Long-running tasks (the HTTP
// serving loops) occupy a thread each.
class ThreadPool {
 public:
  explicit ThreadPool(size_t max_threads);
  ~ThreadPool();
  void Post(std::function<void()> task);
  size_t ThreadCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Scheduler runs one-shot timers on |io_threads| dedicated threads.
class Scheduler {
 public:
  using TimerId = uint64_t;
  explicit Scheduler(size_t io_threads);
  ~Scheduler();
  // AddTimer runs |fn| once after |usec| microseconds.
  TimerId AddTimer(uint64_t usec, std::function<void()> fn);
  // CancelTimer returns true when the timer had not fired yet.
  bool CancelTimer(TimerId id);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

void SetAppInfo(const AppInfo& info);

// InitApp reads |settings_path| over |scratch|, sets the log level from
// "log/level" and creates the thread pool and scheduler from the two
// "hearth/threadPool" keys. Throws SettingsError (or std::exception) on any
// problem; nothing is started then.
void InitApp(std::shared_ptr<Config> scratch, const std::string& settings_path);

// GetApp returns the application created by InitApp. Calling it before
// InitApp is a programming error.
App& GetApp();

// Logger is a named channel over the platform log.
class Logger {
 public:
  explicit Logger(std::string name) : name_(std::move(name)) {}
  const std::string& Name() const { return name_; }
  void Log(int level, const char* fmt, ...) const __attribute__((format(printf, 3, 4)));

  static std::shared_ptr<Logger> sDefaultLogger;
  static std::shared_ptr<Logger> CreateLogger(const std::shared_ptr<Logger>& parent,
                                              const std::string& name);

 private:
  std::string name_;
};

}  // namespace Service
}  // namespace Hearth
