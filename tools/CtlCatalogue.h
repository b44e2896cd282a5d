// witnessctl's command catalogue: the commands and namespaces the daemon's
// CLI metadata names, the metamodel types they use, and the copy kept on disk
// between runs.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/CtlSession.h"

namespace Witnessd::Ctl {

// One input option of a command: its option name, the input field it fills
// (dot-separated for nested fields), the field's metamodel type and the
// value the command uses when the option is not given (null: none).
struct InputOption {
  std::string name;
  std::string field;
  nlohmann::json type;
  nlohmann::json default_value;
};

struct Command {
  std::vector<std::string> path;  // namespace segments, root first
  // Per segment, the words that call it: its namespace's aliases, then its
  // name, all with '-' for '_'.
  std::vector<std::vector<std::string>> segment_words;
  std::string name;
  std::string description;
  std::string service_id;
  std::string operation_id;
  std::vector<InputOption> inputs;  // types filled by Catalog::Describe
  nlohmann::json output_type;
  // Table columns in the order the metadata gives; empty: every field of
  // the row structure, by name.
  std::vector<std::string> columns;
  bool described = false;  // Catalog::Describe filled the fields above
};

// Catalog holds the commands and namespaces the daemon's CLI metadata names.
// A command is called by the words of its namespace path (any tail of it,
// '-' and '_' alike, a namespace's aliases in place of its name) followed by
// its name: "tpm2 endorsement-keys list" and "endorsement-keys list" both
// name attestation.tpm2.endorsement_keys list.
class Catalog {
 public:
  // Load reads the namespace entries and the command list.
  bool Load(ApiSession* api, std::string* error);

  // Save gives the catalogue, with what Describe has read so far, as a
  // document for the metadata whose checksum is |checksum|. Restore takes
  // back only such a document for that same checksum; given anything else it
  // returns false and leaves the catalogue as it was.
  nlohmann::json Save(const std::string& checksum) const;
  bool Restore(const nlohmann::json& saved, const std::string& checksum);
  // Changed: Load or Describe read from the daemon what Save has not seen.
  bool Changed() const { return changed_; }

  enum class Found { kOne, kNone, kAmbiguous };
  // Resolve finds the command that |words| name; |candidates| gets the
  // display words of every command that matched (for an ambiguity) or that
  // starts with the words given (for a help listing).
  Found Resolve(const std::vector<std::string>& words, size_t* index, std::vector<std::string>* candidates) const;

  // Describe fetches one command's entry and the types of its input and
  // output, and the metamodel entries those types name.
  bool Describe(ApiSession* api, size_t index, Command* out, std::string* error);

  // DisplayWords is the shortest tail of a command's namespace words that
  // names it alone, then its name.
  std::string DisplayWords(size_t index) const;
  size_t size() const { return commands_.size(); }
  const Command& at(size_t index) const { return commands_[index]; }

  // Structure and Enumeration give metamodel entries fetched by Describe;
  // null when unknown.
  const nlohmann::json& Structure(const std::string& id) const;
  const nlohmann::json& Enumeration(const std::string& id) const;

 private:
  bool FetchTypes(ApiSession* api, const nlohmann::json& type, std::string* error);

  bool changed_ = false;
  std::vector<Command> commands_;
  nlohmann::json structures_ = nlohmann::json::object();
  nlohmann::json enumerations_ = nlohmann::json::object();
};

// The catalogue is kept between runs in a file per metadata checksum, so a
// command costs one question for the checksum and its own call.
//
// ProviderChecksum asks the daemon for the checksum of its metadata; empty
// when it does not answer one.
std::string ProviderChecksum(ApiSession* api);
// CatalogCachePath is $XDG_CACHE_HOME/witnessctl/catalog-CHECKSUM.json, or
// under $HOME/.cache without XDG_CACHE_HOME; empty when neither is set or the
// checksum is not a hex digest.
std::string CatalogCachePath(const std::string& checksum);
// ReadCatalogCache restores |catalog| from |path|; false when the file is
// missing, damaged or for other metadata. WriteCatalogCache replaces the file
// whole (a temporary file renamed over it), so a reader never sees half.
bool ReadCatalogCache(const std::string& path, const std::string& checksum, Catalog* catalog);
bool WriteCatalogCache(const std::string& path, const std::string& checksum, const Catalog& catalog);

}  // namespace Witnessd::Ctl
