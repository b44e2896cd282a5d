#include "platform/configstore/ConfigStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/JsonParse.h"
#include "platform/Log.h"
#include "platform/System.h"

namespace HyvConfig {

using HostCtl::Lib::HostCtlException;
using Json = nlohmann::json;

namespace {

constexpr const char* kExportFormat = "witnessd-configstore-1";

std::string ReadBootId() {
  std::ifstream in("/proc/sys/kernel/random/boot_id");
  std::string id;
  std::getline(in, id);
  return id.empty() ? "unknown-boot" : id;
}

// The database holds the report-signing private key: it and SQLite's -wal
// and -shm files are readable by the owner only, whatever the umask.
constexpr mode_t kStoreFileMode = 0600;

// OwnerOnly creates |path| with kStoreFileMode when |create| and it is
// missing, and tightens an existing file with wider modes, with a warning.
void OwnerOnly(const std::string& path, bool create) {
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), kStoreFileMode);
  if (fd < 0) {
    if (errno == ENOENT && !create) {
      return;
    }
    throw HostCtlException("cannot open " + path + ": " + strerror(errno));
  }
  struct stat st;
  int rc = fstat(fd, &st);
  if (rc == 0 && (st.st_mode & 07777) != kStoreFileMode) {
    // A file created just now can only lack bits (the umask); wider is news.
    if ((st.st_mode & 07777 & ~kStoreFileMode) != 0) {
      Warning("Config store file %s had mode %04o; tightened to %04o\n", path.c_str(),
              static_cast<unsigned>(st.st_mode & 07777), static_cast<unsigned>(kStoreFileMode));
    }
    rc = fchmod(fd, kStoreFileMode);
  }
  int saved = errno;
  close(fd);
  if (rc != 0) {
    throw HostCtlException("cannot restrict " + path + ": " + strerror(saved));
  }
}

[[noreturn]] void WrongType(const std::string& field, const char* type) {
  throw HostCtlException("field '" + field + "' is not a " + type);
}

}  // namespace

// ObjectCodec turns object trees into JSON and back. Object members of JSON
// are sorted, so equal trees give equal text.
class ObjectCodec {
 public:
  static Json Encode(const ConfigStoreObject& object) {
    Json fields = Json::object();
    for (const auto& field : object.fields_) {
      std::visit([&](const auto& v) { fields[field.first] = v; }, field.second);
    }
    Json out = {{"fields", std::move(fields)}};
    if (!object.subs_.empty()) {
      Json subs = Json::array();
      for (const ConfigStoreObject::Sub& sub : object.subs_) {
        subs.push_back(Json::array({sub.id.name, sub.id.key, Encode(*sub.object)}));
      }
      out["subs"] = std::move(subs);
    }
    return out;
  }

  // Decode throws HostCtlException on any shape other than Encode's.
  static void Decode(const Json& in, ConfigStoreObject* out) {
    if (!in.is_object() || !in.contains("fields") || !in["fields"].is_object()) {
      throw HostCtlException("malformed object");
    }
    for (const auto& [name, value] : in["fields"].items()) {
      if (value.is_string()) {
        out->fields_[name] = value.get<std::string>();
      } else if (value.is_boolean()) {
        out->fields_[name] = value.get<bool>();
      } else if (value.is_array() && std::all_of(value.begin(), value.end(),
                                                 [](const Json& s) { return s.is_string(); })) {
        out->fields_[name] = value.get<std::vector<std::string>>();
      } else {
        throw HostCtlException("malformed value of field '" + name + "'");
      }
    }
    if (!in.contains("subs")) {
      return;
    }
    if (!in["subs"].is_array()) {
      throw HostCtlException("malformed sub-object list");
    }
    for (const Json& sub : in["subs"]) {
      if (!sub.is_array() || sub.size() != 3 || !sub[0].is_string() || !sub[1].is_string()) {
        throw HostCtlException("malformed sub-object");
      }
      auto child = out->CreateSubObject(SubObjectId(sub[0].get<std::string>(), sub[1].get<std::string>()));
      if (child == nullptr) {
        throw HostCtlException("sub-object without a name");
      }
      Decode(sub[2], child.get());
    }
  }

  // Merge copies the fields and sub-objects set on |from| into |into|.
  static void Merge(const ConfigStoreObject& from, ConfigStoreObject* into) {
    for (const auto& [name, value] : from.fields_) {
      into->fields_[name] = value;
    }
    for (const ConfigStoreObject::Sub& sub : from.subs_) {
      auto child = into->CreateSubObject(sub.id);
      Merge(*sub.object, child.get());
    }
  }

  static std::string Dump(const Json& json) {
    try {
      return json.dump(2);
    } catch (const Json::exception& e) {
      throw HostCtlException(std::string("cannot encode object: ") + e.what());
    }
  }

  static ConfigStoreObjectPtr Parse(const ConfigStoreObjectId& id, const std::string& text) {
    auto object = std::make_shared<ConfigStoreObject>(id);
    Json json = Hearth::ParseJson(text);
    if (json.is_discarded()) {
      throw HostCtlException("stored record is not valid JSON");
    }
    Decode(json, object.get());
    return object;
  }
};

// --- StoreObject ------------------------------------------------------------

void StoreObject::GetValue(const std::string& field, std::string* out) const {
  auto it = fields_.find(field);
  if (it == fields_.end()) {
    out->clear();
    return;
  }
  const auto* s = std::get_if<std::string>(&it->second);
  if (s == nullptr) {
    WrongType(field, "string");
  }
  *out = *s;
}

void StoreObject::GetValue(const std::string& field, bool* out) const {
  auto it = fields_.find(field);
  if (it == fields_.end()) {
    *out = false;
    return;
  }
  const bool* b = std::get_if<bool>(&it->second);
  if (b == nullptr) {
    WrongType(field, "bool");
  }
  *out = *b;
}

void StoreObject::GetValue(const std::string& field, std::vector<std::string>* out) const {
  auto it = fields_.find(field);
  if (it == fields_.end()) {
    out->clear();
    return;
  }
  const auto* l = std::get_if<std::vector<std::string>>(&it->second);
  if (l == nullptr) {
    WrongType(field, "list of strings");
  }
  *out = *l;
}

void StoreObject::SetValue(const std::string& field, const std::string& value) {
  fields_[field] = value;
}

void StoreObject::SetValue(const std::string& field, const char* value) {
  fields_[field] = std::string(value != nullptr ? value : "");
}

void StoreObject::SetValue(const std::string& field, bool value) {
  fields_[field] = value;
}

void StoreObject::SetValue(const std::string& field, const std::vector<std::string>& value) {
  fields_[field] = value;
}

ConfigStoreObjectPtr ConfigStoreObject::CreateSubObject(const SubObjectId& id) {
  if (id.name.empty()) {
    return nullptr;
  }
  auto object = std::make_shared<ConfigStoreObject>(id_);
  for (Sub& sub : subs_) {
    if (sub.id.name == id.name && sub.id.key == id.key) {
      sub.object = object;
      return object;
    }
  }
  subs_.push_back({id, object});
  return object;
}

ConfigStoreObjectPtr ConfigStoreObject::GetSubObject(const SubObjectId& id) const {
  for (const Sub& sub : subs_) {
    if (sub.id.name == id.name && sub.id.key == id.key) {
      return sub.object;
    }
  }
  return nullptr;
}

std::vector<ConfigStoreObjectPtr> ConfigStoreObject::GetSubObjects(const std::string& name) const {
  std::vector<ConfigStoreObjectPtr> out;
  for (const Sub& sub : subs_) {
    if (sub.id.name == name) {
      out.push_back(sub.object);
    }
  }
  return out;
}

// --- HyvConfigStore ---------------------------------------------------------

// Statement owns one prepared statement; every SQLite call on it passes
// through the store's fault seam and error check.
class HyvConfigStore::Statement {
 public:
  Statement(HyvConfigStore* store, const char* sql) : store_(store) {
    store_->Fault();
    sqlite3_stmt* stmt = nullptr;
    store_->Check(sqlite3_prepare_v2(store_->Db(), sql, -1, &stmt, nullptr), "prepare");
    stmt_.reset(stmt);
  }

  Statement& Bind(int index, const std::string& text) {
    store_->Fault();
    store_->Check(sqlite3_bind_text(stmt_.get(), index, text.data(), static_cast<int>(text.size()),
                                    SQLITE_TRANSIENT),
                  "bind");
    return *this;
  }

  Statement& BindId(const ConfigStoreObjectId& id) {
    return Bind(1, id.key).Bind(2, id.component).Bind(3, id.group).Bind(4, id.instance_id);
  }

  // Step returns true while a row is available.
  bool Step() {
    store_->Fault();
    int rc = sqlite3_step(stmt_.get());
    if (rc == SQLITE_ROW) {
      return true;
    }
    store_->Check(rc == SQLITE_DONE ? SQLITE_OK : rc, "step");
    return false;
  }

  std::string Text(int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_.get(), column));
    return text != nullptr ? std::string(text, sqlite3_column_bytes(stmt_.get(), column)) : std::string();
  }

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
  };
  HyvConfigStore* store_;
  std::unique_ptr<sqlite3_stmt, Finalizer> stmt_;
};

std::shared_ptr<HyvConfigStore> HyvConfigStore::Open(const std::string& path, const std::string& boot_id) {
  std::error_code ec;
  std::filesystem::path parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) {
    std::filesystem::create_directories(parent, ec);
    if (ec) {
      throw HostCtlException("cannot create directory " + parent.string() + ": " + ec.message());
    }
  }
  OwnerOnly(path, true);
  OwnerOnly(path + "-wal", false);
  OwnerOnly(path + "-shm", false);
  std::shared_ptr<HyvConfigStore> store(new HyvConfigStore());
  store->boot_id_ = boot_id.empty() ? ReadBootId() : boot_id;
  int rc = sqlite3_open_v2(path.c_str(), &store->db_,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string message = store->db_ != nullptr ? sqlite3_errmsg(store->db_) : sqlite3_errstr(rc);
    throw HostCtlException("cannot open " + path + ": " + message);
  }
  sqlite3_busy_timeout(store->db_, 5000);
  std::lock_guard<std::mutex> lock(store->mutex_);
  std::string verdict;
  try {
    // WAL with synchronous FULL makes a transaction durable once COMMIT returns.
    store->Exec("PRAGMA journal_mode=WAL");
    store->Exec("PRAGMA synchronous=FULL");
    store->Exec(
        "CREATE TABLE IF NOT EXISTS records("
        " key TEXT NOT NULL, component TEXT NOT NULL, grp TEXT NOT NULL, instance TEXT NOT NULL,"
        " body TEXT NOT NULL, boot_id TEXT NOT NULL DEFAULT '',"
        " PRIMARY KEY(key, component, grp, instance))");
    Statement check(store.get(), "PRAGMA quick_check");
    verdict = check.Step() ? check.Text(0) : "no answer";
  } catch (const HostCtlException& e) {
    throw HostCtlException("cannot open " + path + ": " + e.what());
  }
  // A damaged file must stop the start, never read as an empty configuration.
  if (verdict != "ok") {
    throw HostCtlException("cannot open " + path + ": integrity check failed: " + verdict);
  }
  return store;
}

HyvConfigStore::~HyvConfigStore() {
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
  }
}

void HyvConfigStore::FailSqliteCallAfter(int calls_to_skip) {
  std::lock_guard<std::mutex> lock(mutex_);
  fail_after_ = calls_to_skip;
}

void HyvConfigStore::Fault() {
  if (fail_after_ < 0) {
    return;
  }
  if (fail_after_-- == 0) {
    throw HostCtlException(sqlite3_errstr(SQLITE_IOERR));
  }
}

void HyvConfigStore::Check(int rc, const char* what) {
  if (rc != SQLITE_OK) {
    throw HostCtlException(sqlite3_errmsg(db_));
  }
}

void HyvConfigStore::Exec(const char* sql) {
  Fault();
  Check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr), sql);
}

// Transaction is one write transaction, begun on construction and rolled
// back on destruction unless Commit succeeded, so every early exit and
// exception undoes the partial writes. Callers hold mutex_.
class HyvConfigStore::Transaction {
 public:
  explicit Transaction(HyvConfigStore* store) : store_(store) { store_->Exec("BEGIN IMMEDIATE"); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    // Not through the fault seam: undoing must work after an injected fault.
    if (!committed_ && !sqlite3_get_autocommit(store_->db_)) {
      sqlite3_exec(store_->db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  void Commit() {
    store_->Exec("COMMIT");
    committed_ = true;
  }

 private:
  HyvConfigStore* store_;
  bool committed_ = false;
};

ConfigStoreObjectPtr HyvConfigStore::Read(const ConfigStoreObjectId& id) {
  Statement st(this, "SELECT body FROM records WHERE key=?1 AND component=?2 AND grp=?3 AND instance=?4");
  st.BindId(id);
  if (!st.Step()) {
    return nullptr;
  }
  return ObjectCodec::Parse(id, st.Text(0));
}

bool HyvConfigStore::Write(const ConfigStoreObjectId& id, const std::string& body) {
  bool existed = false;
  {
    Statement st(this, "SELECT 1 FROM records WHERE key=?1 AND component=?2 AND grp=?3 AND instance=?4");
    st.BindId(id);
    existed = st.Step();
  }
  Statement st(this,
               "INSERT INTO records(key, component, grp, instance, body) VALUES(?1, ?2, ?3, ?4, ?5)"
               " ON CONFLICT(key, component, grp, instance) DO UPDATE SET body=excluded.body");
  st.BindId(id).Bind(5, body);
  st.Step();
  return existed;
}

std::vector<ConfigStoreObjectPtr> HyvConfigStore::ReadInstances(const ConfigStoreObjectId& id) {
  Statement st(this,
               "SELECT instance, body FROM records WHERE key=?1 AND component=?2 AND grp=?3 ORDER BY rowid");
  st.Bind(1, id.key).Bind(2, id.component).Bind(3, id.group);
  std::vector<ConfigStoreObjectPtr> out;
  while (st.Step()) {
    out.push_back(ObjectCodec::Parse(ConfigStoreObjectId(id.key, id.component, id.group, st.Text(0)),
                                     st.Text(1)));
  }
  return out;
}

ConfigStoreObjectPtr HyvConfigStore::GetObject(const ConfigStoreObjectId& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  return Read(id);
}

void HyvConfigStore::SetObject(const ConfigStoreObject& object, int& status) {
  std::string body = ObjectCodec::Dump(ObjectCodec::Encode(object));
  std::lock_guard<std::mutex> lock(mutex_);
  Transaction tx(this);
  bool existed = Write(object.GetConfigStoreObjectId(), body);
  tx.Commit();
  status = existed ? 1 : 0;
}

void HyvConfigStore::UpdateObject(const ConfigStoreObjectId& id, const ConfigStoreObject& object) {
  std::lock_guard<std::mutex> lock(mutex_);
  Transaction tx(this);
  ConfigStoreObjectPtr current = Read(id);
  if (current == nullptr) {
    current = std::make_shared<ConfigStoreObject>(id);
  }
  ObjectCodec::Merge(object, current.get());
  Write(id, ObjectCodec::Dump(ObjectCodec::Encode(*current)));
  tx.Commit();
}

bool HyvConfigStore::DeleteObject(const ConfigStoreObjectId& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  Transaction tx(this);
  Statement st(this, "DELETE FROM records WHERE key=?1 AND component=?2 AND grp=?3 AND instance=?4");
  st.BindId(id);
  st.Step();
  bool deleted = sqlite3_changes(db_) > 0;
  tx.Commit();
  return deleted;
}

std::vector<ConfigStoreObjectPtr> HyvConfigStore::GetObjectInstances(const FilterSpecObject& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  return ReadInstances(filter.id);
}

ConfigStoreObjectPtr HyvConfigStore::GetDesiredUserConfig(const ConfigStoreObjectId& id, UserConfigView view) {
  std::lock_guard<std::mutex> lock(mutex_);
  return Read(id);
}

std::vector<ConfigStoreObjectPtr> HyvConfigStore::GetDesiredUserConfigInstances(const ConfigStoreObjectId& id,
                                                                                UserConfigView view) {
  std::lock_guard<std::mutex> lock(mutex_);
  return ReadInstances(id);
}

void HyvConfigStore::SetBootStatus(const ConfigStoreObjectId& id, bool restored) {
  std::lock_guard<std::mutex> lock(mutex_);
  Transaction tx(this);
  Statement st(this, "UPDATE records SET boot_id=?5 WHERE key=?1 AND component=?2 AND grp=?3 AND instance=?4");
  st.BindId(id).Bind(5, restored ? boot_id_ : std::string());
  st.Step();
  tx.Commit();
}

bool HyvConfigStore::GetBootStatus(const ConfigStoreObjectId& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement st(this, "SELECT boot_id FROM records WHERE key=?1 AND component=?2 AND grp=?3 AND instance=?4");
  st.BindId(id);
  return st.Step() && st.Text(0) == boot_id_;
}

std::string HyvConfigStore::Export(const std::vector<FilterSpecObject>& filters) {
  Json keys = Json::array();
  Json records = Json::array();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const FilterSpecObject& filter : filters) {
    const ConfigStoreObjectId& id = filter.id;
    keys.push_back(Json::array({id.key, id.component, id.group}));
    std::vector<ConfigStoreObjectPtr> instances = ReadInstances(id);
    std::sort(instances.begin(), instances.end(), [](const auto& a, const auto& b) {
      return a->GetConfigStoreObjectId().instance_id < b->GetConfigStoreObjectId().instance_id;
    });
    for (const ConfigStoreObjectPtr& object : instances) {
      records.push_back({{"key", id.key},
                         {"component", id.component},
                         {"group", id.group},
                         {"instance", object->GetConfigStoreObjectId().instance_id},
                         {"object", ObjectCodec::Encode(*object)}});
    }
  }
  return ObjectCodec::Dump({{"format", kExportFormat}, {"keys", keys}, {"records", records}});
}

bool HyvConfigStore::Import(const std::string& text, const std::vector<FilterSpecObject>& allowed,
                            const RecordCheck& check, std::vector<ErrorInfo>& errors) {
  Json doc = Hearth::ParseJson(text);
  if (doc.is_discarded() || !doc.is_object() || !doc.contains("format") || doc["format"] != kExportFormat ||
      !doc.contains("keys") || !doc["keys"].is_array() || !doc.contains("records") ||
      !doc["records"].is_array()) {
    errors.push_back({"", "not an exported configuration"});
    return false;
  }
  std::vector<ConfigStoreObjectId> keys;
  for (const Json& key : doc["keys"]) {
    if (!key.is_array() || key.size() != 3 || !key[0].is_string() || !key[1].is_string() ||
        !key[2].is_string()) {
      errors.push_back({"", "malformed key"});
      return false;
    }
    keys.emplace_back(key[0].get<std::string>(), key[1].get<std::string>(), key[2].get<std::string>());
    // A listed key is emptied by the import, so a key outside |allowed| is
    // refused even without records: listing it alone would delete it.
    const ConfigStoreObjectId& listed = keys.back();
    if (std::none_of(allowed.begin(), allowed.end(), [&](const FilterSpecObject& f) {
          return f.id.key == listed.key && f.id.component == listed.component && f.id.group == listed.group;
        })) {
      errors.push_back({listed.key, "key may not be imported"});
      return false;
    }
  }
  // Decode every record before touching the store, so a bad one changes nothing.
  std::vector<std::pair<ConfigStoreObjectId, std::string>> rows;
  for (const Json& record : doc["records"]) {
    std::string item;
    try {
      if (!record.is_object()) {
        throw HostCtlException("record is not an object");
      }
      ConfigStoreObjectId id(record.at("key").get<std::string>(), record.at("component").get<std::string>(),
                             record.at("group").get<std::string>(), record.at("instance").get<std::string>());
      item = id.key + "/" + id.instance_id;
      if (std::find_if(keys.begin(), keys.end(), [&](const ConfigStoreObjectId& k) {
            return k.key == id.key && k.component == id.component && k.group == id.group;
          }) == keys.end()) {
        throw HostCtlException("record of a key the text does not list");
      }
      ConfigStoreObject object(id);
      ObjectCodec::Decode(record.at("object"), &object);
      if (std::string why = check ? check(object) : std::string(); !why.empty()) {
        throw HostCtlException(why);
      }
      rows.emplace_back(id, ObjectCodec::Dump(ObjectCodec::Encode(object)));
    } catch (const HostCtlException& e) {
      errors.push_back({item, e.what()});
    } catch (const Json::exception& e) {
      errors.push_back({item, e.what()});
    }
  }
  if (!errors.empty()) {
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  try {
    Transaction tx(this);
    for (const ConfigStoreObjectId& key : keys) {
      Statement st(this, "DELETE FROM records WHERE key=?1 AND component=?2 AND grp=?3");
      st.Bind(1, key.key).Bind(2, key.component).Bind(3, key.group);
      st.Step();
    }
    for (const auto& [id, body] : rows) {
      Write(id, body);
    }
    tx.Commit();
  } catch (const HostCtlException& e) {
    errors.push_back({"", e.what()});
    return false;
  }
  return true;
}

}  // namespace HyvConfig
