#include "platform/Hearth.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Log.h"

namespace Hearth {

namespace System {

void QuickExit(int status) {
  fflush(stdout);
  fflush(stderr);
  _exit(status);
}

}  // namespace System

namespace Service {
namespace {

bool ParseInt(const std::string& text, int64_t* out) {
  if (text.empty()) {
    return false;
  }
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(text.c_str(), &end, 10);
  if (*end != '\0' || errno != 0) {
    return false;
  }
  *out = v;
  return true;
}

bool ParseBool(const std::string& text, bool* out) {
  if (text == "true" || text == "1") {
    *out = true;
    return true;
  }
  if (text == "false" || text == "0") {
    *out = false;
    return true;
  }
  return false;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) {
    return "";
  }
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

struct XmlDocDeleter {
  void operator()(xmlDoc* d) const { xmlFreeDoc(d); }
};
struct XmlParserCtxtDeleter {
  void operator()(xmlParserCtxt* c) const { xmlFreeParserCtxt(c); }
};

// Collects leaf elements below |node| as "a/b/c" -> text.
void CollectLeaves(const std::string& path, xmlNode* node, const std::string& file,
                   std::vector<std::pair<std::string, std::string>>* out) {
  bool has_element_child = false;
  for (xmlNode* c = node->children; c != nullptr; c = c->next) {
    if (c->type == XML_ELEMENT_NODE) {
      has_element_child = true;
      std::string name = reinterpret_cast<const char*>(c->name);
      CollectLeaves(path.empty() ? name : path + "/" + name, c, file, out);
    }
  }
  if (has_element_child || path.empty()) {
    return;
  }
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content != nullptr ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  out->emplace_back(path, Trim(text));
}

}  // namespace

void Config::SetString(const std::string& key, const std::string& value) {
  values_[key] = {Type::kString, value};
}

void Config::SetInt(const std::string& key, int64_t value) {
  values_[key] = {Type::kInt, std::to_string(value)};
}

void Config::SetBool(const std::string& key, bool value) {
  values_[key] = {Type::kBool, value ? "true" : "false"};
}

bool Config::Has(const std::string& key) const {
  return values_.count(key) != 0;
}

std::string Config::GetString(const std::string& key, const std::string& def) const {
  auto it = values_.find(key);
  return it == values_.end() ? def : it->second.text;
}

int64_t Config::GetInt(const std::string& key, int64_t def) const {
  auto it = values_.find(key);
  if (it == values_.end()) {
    return def;
  }
  int64_t v;
  if (!ParseInt(it->second.text, &v)) {
    throw SettingsError("setting '" + key + "': '" + it->second.text + "' is not an integer");
  }
  return v;
}

bool Config::GetBool(const std::string& key, bool def) const {
  auto it = values_.find(key);
  if (it == values_.end()) {
    return def;
  }
  bool v;
  if (!ParseBool(it->second.text, &v)) {
    throw SettingsError("setting '" + key + "': '" + it->second.text + "' is not a boolean");
  }
  return v;
}

void Config::LoadXmlFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) {
      return;
    }
    throw SettingsError("settings file " + path + ": " + strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) {
    throw SettingsError("settings file " + path + ": not a regular file");
  }
  if (access(path.c_str(), R_OK) != 0) {
    throw SettingsError("settings file " + path + ": " + strerror(errno));
  }

  std::unique_ptr<xmlParserCtxt, XmlParserCtxtDeleter> ctxt(xmlNewParserCtxt());
  if (!ctxt) {
    throw SettingsError("settings file " + path + ": out of memory");
  }
  // No network, no external entities, no DTD loading: the file is data only.
  std::unique_ptr<xmlDoc, XmlDocDeleter> doc(xmlCtxtReadFile(
      ctxt.get(), path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) {
    std::string why = "not well-formed XML";
    if (const xmlError* err = xmlCtxtGetLastError(ctxt.get()); err != nullptr && err->message != nullptr) {
      why = "line " + std::to_string(err->line) + ": " + Trim(err->message);
    }
    throw SettingsError("settings file " + path + ": " + why);
  }
  // Entities would be expanded when leaves are read; settings never need them.
  if (doc->intSubset != nullptr) {
    throw SettingsError("settings file " + path + ": a DTD is not allowed");
  }
  xmlNode* root = xmlDocGetRootElement(doc.get());
  if (root == nullptr) {
    throw SettingsError("settings file " + path + ": no root element");
  }

  std::vector<std::pair<std::string, std::string>> leaves;
  CollectLeaves("", root, path, &leaves);

  // Validate everything before changing anything.
  std::map<std::string, Value> updated = values_;
  std::map<std::string, bool> seen;
  for (const auto& [key, text] : leaves) {
    if (seen[key]) {
      throw SettingsError("settings file " + path + ": key '" + key + "' appears more than once");
    }
    seen[key] = true;
    auto it = updated.find(key);
    Type type = it == updated.end() ? Type::kString : it->second.type;
    int64_t iv;
    bool bv;
    if (type == Type::kInt && !ParseInt(text, &iv)) {
      throw SettingsError("settings file " + path + ": key '" + key + "' must be an integer, not '" +
                          text + "'");
    }
    if (type == Type::kBool && !ParseBool(text, &bv)) {
      throw SettingsError("settings file " + path + ": key '" + key + "' must be true or false, not '" +
                          text + "'");
    }
    updated[key] = {type, text};
  }
  values_ = std::move(updated);
}

std::shared_ptr<Config> CreateScratchConfig() {
  return std::make_shared<Config>();
}

// ---- ThreadPool ----

struct ThreadPool::Impl {
  size_t max_threads;
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::function<void()>> queue;
  std::vector<std::thread> threads;
  size_t idle = 0;
  bool stopping = false;

  void Work() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      ++idle;
      cv.wait(lock, [this] { return stopping || !queue.empty(); });
      --idle;
      if (stopping && queue.empty()) {
        return;
      }
      auto task = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      task();
      lock.lock();
    }
  }
};

ThreadPool::ThreadPool(size_t max_threads) : impl_(std::make_unique<Impl>()) {
  impl_->max_threads = max_threads;
}

ThreadPool::~ThreadPool() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->cv.notify_all();
  for (auto& t : impl_->threads) {
    t.join();
  }
}

void ThreadPool::Post(std::function<void()> task) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->queue.push_back(std::move(task));
  if (impl_->idle < impl_->queue.size() && impl_->threads.size() < impl_->max_threads) {
    impl_->threads.emplace_back([impl = impl_.get()] { impl->Work(); });
  }
  impl_->cv.notify_one();
}

size_t ThreadPool::ThreadCount() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->threads.size();
}

// ---- Scheduler ----

struct Scheduler::Impl {
  boost::asio::io_context io;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{io.get_executor()};
  std::vector<std::thread> threads;
  std::mutex mutex;
  uint64_t next_id = 1;
  std::unordered_map<uint64_t, std::shared_ptr<boost::asio::steady_timer>> timers;
};

Scheduler::Scheduler(size_t io_threads) : impl_(std::make_shared<Impl>()) {
  for (size_t i = 0; i < io_threads; ++i) {
    impl_->threads.emplace_back([impl = impl_.get()] { impl->io.run(); });
  }
}

Scheduler::~Scheduler() {
  impl_->work.reset();
  impl_->io.stop();
  for (auto& t : impl_->threads) {
    t.join();
  }
}

Scheduler::TimerId Scheduler::AddTimer(uint64_t usec, std::function<void()> fn) {
  auto timer = std::make_shared<boost::asio::steady_timer>(impl_->io, std::chrono::microseconds(usec));
  TimerId id;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    id = impl_->next_id++;
    impl_->timers[id] = timer;
  }
  std::weak_ptr<Impl> weak = impl_;
  timer->async_wait([weak, id, fn = std::move(fn)](const boost::system::error_code& ec) {
    auto impl = weak.lock();
    if (!impl) {
      return;
    }
    {
      std::lock_guard<std::mutex> lock(impl->mutex);
      if (impl->timers.erase(id) == 0 || ec) {
        return;  // cancelled
      }
    }
    fn();
  });
  return id;
}

bool Scheduler::CancelTimer(TimerId id) {
  std::shared_ptr<boost::asio::steady_timer> timer;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->timers.find(id);
    if (it == impl_->timers.end()) {
      return false;
    }
    timer = it->second;
    impl_->timers.erase(it);
  }
  timer->cancel();
  return true;
}

// ---- App ----

struct App::Loop {
  std::mutex mutex;
  std::condition_variable cv;
  bool stopped = false;
};

App::App(const AppInfo& info, std::shared_ptr<Config> config)
    : info_(info), config_(std::move(config)), loop_(std::make_unique<Loop>()) {
  int64_t io_threads = config_->GetInt("hearth/threadPool/ioThreads", 1);
  int64_t max_threads = config_->GetInt("hearth/threadPool/maxThreads", 9);
  if (io_threads < 1 || io_threads > 64) {
    throw SettingsError("key 'hearth/threadPool/ioThreads' must be between 1 and 64, not " +
                        std::to_string(io_threads));
  }
  if (max_threads < 1 || max_threads > 256) {
    throw SettingsError("key 'hearth/threadPool/maxThreads' must be between 1 and 256, not " +
                        std::to_string(max_threads));
  }
  pool_ = std::make_unique<ThreadPool>(static_cast<size_t>(max_threads));
  scheduler_ = std::make_unique<Scheduler>(static_cast<size_t>(io_threads));
}

App::~App() = default;

void App::Run() {
  std::unique_lock<std::mutex> lock(loop_->mutex);
  loop_->cv.wait(lock, [this] { return loop_->stopped; });
}

void App::Stop() {
  {
    std::lock_guard<std::mutex> lock(loop_->mutex);
    loop_->stopped = true;
  }
  loop_->cv.notify_all();
}

namespace {
AppInfo g_app_info;
std::unique_ptr<App> g_app;
}  // namespace

void SetAppInfo(const AppInfo& info) {
  g_app_info = info;
}

void InitApp(std::shared_ptr<Config> scratch, const std::string& settings_path) {
  scratch->LoadXmlFile(settings_path);
  std::string level_name = scratch->GetString("log/level", "info");
  std::optional<int> level = Log_LevelFromName(level_name);
  if (!level) {
    throw SettingsError("settings file " + settings_path + ": key 'log/level' has unknown level '" +
                        level_name + "' (expected error, warning, info, verbose or trivia)");
  }
  std::unique_ptr<App> app;
  try {
    app = std::make_unique<App>(g_app_info, scratch);
  } catch (const SettingsError& e) {
    throw SettingsError("settings file " + settings_path + ": " + e.what());
  }
  Log_SetMaxLevel(*level);
  g_app = std::move(app);
}

App& GetApp() {
  if (!g_app) {
    Panic("VERIFY %s:%d\n", "apps/witnessd/platform/Hearth", __LINE__);
  }
  return *g_app;
}

// ---- Logger ----

std::shared_ptr<Logger> Logger::sDefaultLogger = std::make_shared<Logger>("default");

std::shared_ptr<Logger> Logger::CreateLogger(const std::shared_ptr<Logger>& parent, const std::string& name) {
  return std::make_shared<Logger>(parent ? parent->Name() + "." + name : name);
}

void Logger::Log(int level, const char* fmt, ...) const {
  if (!Log_IsEnabled(level)) {
    return;
  }
  va_list args;
  va_start(args, fmt);
  char text[8192];
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  Log_Level(level, "[%s] %s", name_.c_str(), text);
}

}  // namespace Service
}  // namespace Hearth
