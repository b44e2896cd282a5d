// The platform configuration store: durable records on SQLite, addressed by
// (key, component, group, instance), each a tree of typed fields and named
// sub-objects. Every operation is safe to call from any thread; every write is
// one transaction and durable when the call returns. Failures are reported only
// by throwing HostCtl::Lib::HostCtlException carrying SQLite's message.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

struct sqlite3;

namespace HostCtl::Lib {

class HostCtlException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace HostCtl::Lib

namespace HyvConfig {

// The database file, under the sysroot (see Hearth::SysrootPath).
inline constexpr const char* kDatabasePath = "/var/lib/quarro/witnessd/configstore.db";

// ConfigStoreObjectId names a record. Single-instance records leave
// |instance_id| empty; multi-instance records use the item's name.
struct ConfigStoreObjectId {
  ConfigStoreObjectId(std::string key, std::string component, std::string group)
      : key(std::move(key)), component(std::move(component)), group(std::move(group)) {}
  ConfigStoreObjectId(std::string key, std::string component, std::string group, std::string instance)
      : key(std::move(key)), component(std::move(component)), group(std::move(group)),
        instance_id(std::move(instance)) {}

  bool operator==(const ConfigStoreObjectId&) const = default;

  std::string key;
  std::string component;
  std::string group;
  std::string instance_id;
};

// SubObjectId names a sub-object inside a record: |name| says what it is
// ("cert_chain", "paks") and |key| tells apart several of the same name.
struct SubObjectId {
  explicit SubObjectId(std::string name, std::string key = "") : name(std::move(name)), key(std::move(key)) {}
  std::string name;
  std::string key;
};

// FilterSpecObject selects every instance of the key named by |id|; the
// instance id of |id| is ignored.
struct FilterSpecObject {
  explicit FilterSpecObject(ConfigStoreObjectId id) : id(std::move(id)) {}
  ConfigStoreObjectId id;
};

// ErrorInfo is one problem found by Import.
struct ErrorInfo {
  std::string item;
  std::string message;
};

class ConfigStoreObject;
using ConfigStoreObjectPtr = std::shared_ptr<ConfigStoreObject>;

// StoreObject holds typed fields. Reading an absent field yields "", false or
// an empty list (a record's own defaults are its owner's to apply); reading a
// field of another type throws HostCtlException.
class StoreObject {
 public:
  using Value = std::variant<std::string, bool, std::vector<std::string>>;

  explicit StoreObject(ConfigStoreObjectId id) : id_(std::move(id)) {}
  virtual ~StoreObject() = default;

  void GetValue(const std::string& field, std::string* out) const;
  void GetValue(const std::string& field, bool* out) const;
  void GetValue(const std::string& field, std::vector<std::string>* out) const;

  void SetValue(const std::string& field, const std::string& value);
  void SetValue(const std::string& field, const char* value);
  void SetValue(const std::string& field, bool value);
  void SetValue(const std::string& field, const std::vector<std::string>& value);

  bool HasValue(const std::string& field) const { return fields_.count(field) != 0; }
  const ConfigStoreObjectId& GetConfigStoreObjectId() const { return id_; }

 protected:
  ConfigStoreObjectId id_;
  std::map<std::string, Value> fields_;

  friend class ObjectCodec;
};

// ConfigStoreObject is a record or a sub-object of one. Sub-objects keep the
// order in which they were created.
class ConfigStoreObject : public StoreObject {
 public:
  using StoreObject::StoreObject;

  // CreateSubObject adds an empty sub-object, replacing one with the same id
  // in place. Returns null when |id| has an empty name.
  ConfigStoreObjectPtr CreateSubObject(const SubObjectId& id);
  // GetSubObject returns the sub-object with this id, or null.
  ConfigStoreObjectPtr GetSubObject(const SubObjectId& id) const;
  // GetSubObjects returns every sub-object named |name|, in creation order.
  std::vector<ConfigStoreObjectPtr> GetSubObjects(const std::string& name) const;

 private:
  struct Sub {
    SubObjectId id;
    ConfigStoreObjectPtr object;
  };
  std::vector<Sub> subs_;

  friend class ObjectCodec;
};

// How the desired-configuration queries read the store. The store keeps one
// durable copy of what the user set, so both views give the same records.
enum class UserConfigView { kAtBoot = 0, kCurrent = 1 };

class HyvConfigStore {
 public:
  // Open opens (creating if needed) the database at |path| and its directory,
  // switches it to WAL with synchronous FULL and checks its integrity. Throws
  // HostCtlException when the file cannot be opened, is not a database or is
  // damaged. |boot_id| tells this boot from earlier ones for SetBootStatus;
  // empty reads the kernel's boot id.
  static std::shared_ptr<HyvConfigStore> Open(const std::string& path, const std::string& boot_id = "");
  ~HyvConfigStore();
  HyvConfigStore(const HyvConfigStore&) = delete;
  HyvConfigStore& operator=(const HyvConfigStore&) = delete;

  // GetObject returns the record, or null when it does not exist.
  ConfigStoreObjectPtr GetObject(const ConfigStoreObjectId& id);
  // SetObject creates the record of |object|, replacing a record of the same
  // id whole. |status| is set to 0 when the record was new, 1 when replaced.
  void SetObject(const ConfigStoreObject& object, int& status);
  // UpdateObject writes the fields and sub-objects set on |object| into the
  // record |id|, creating it when absent; other fields keep their values.
  void UpdateObject(const ConfigStoreObjectId& id, const ConfigStoreObject& object);
  // DeleteObject removes the record; returns whether it existed.
  bool DeleteObject(const ConfigStoreObjectId& id);
  // GetObjectInstances returns every instance of the filter's key, oldest first.
  std::vector<ConfigStoreObjectPtr> GetObjectInstances(const FilterSpecObject& filter);

  // The user configuration to restore at start: a single-instance record
  // (null when absent) or every instance of a key.
  ConfigStoreObjectPtr GetDesiredUserConfig(const ConfigStoreObjectId& id, UserConfigView view);
  std::vector<ConfigStoreObjectPtr> GetDesiredUserConfigInstances(const ConfigStoreObjectId& id,
                                                                  UserConfigView view);
  // SetBootStatus marks the record as restored (or not) in this boot;
  // GetBootStatus tells whether it has been. Unknown records are ignored/false.
  void SetBootStatus(const ConfigStoreObjectId& id, bool restored);
  bool GetBootStatus(const ConfigStoreObjectId& id);

  // Export writes the selected keys' records as one canonical text: records
  // sorted by key then instance, fields sorted by name, sub-objects in order.
  // Equal configurations give equal texts.
  std::string Export(const std::vector<FilterSpecObject>& filters);
  // RecordCheck tells why |object| must not be stored, or returns an empty
  // text when it may be.
  using RecordCheck = std::function<std::string(const ConfigStoreObject& object)>;
  // Import replaces every key named in an exported text by the records in it,
  // all or nothing. The text may name only keys selected by |allowed| (specs
  // as Export takes them), and every record must pass |check| before anything
  // is written. Returns false, with the problems in |errors|, when the text is
  // malformed, names another key, holds a refused record or the store fails;
  // nothing is then changed.
  bool Import(const std::string& text, const std::vector<FilterSpecObject>& allowed, const RecordCheck& check,
              std::vector<ErrorInfo>& errors);

  // Test seam: the SQLite call made after |calls_to_skip| further calls fails
  // with SQLITE_IOERR, as if the disk had failed. One shot.
  void FailSqliteCallAfter(int calls_to_skip);

 private:
  class Statement;
  class Transaction;
  HyvConfigStore() = default;

  void Check(int rc, const char* what);
  void Fault();
  sqlite3* Db() { return db_; }
  void Exec(const char* sql);
  ConfigStoreObjectPtr Read(const ConfigStoreObjectId& id);
  bool Write(const ConfigStoreObjectId& id, const std::string& body);
  std::vector<ConfigStoreObjectPtr> ReadInstances(const ConfigStoreObjectId& id);

  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::string boot_id_;
  int fail_after_ = -1;
};

}  // namespace HyvConfig
