// witnessctl: administers a running witnessd. Its commands come from the
// daemon's CLI metadata, so an operation added there is reachable here
// without a new client.
//
//   witnessctl [--host H] [--port P] [--token-file F] [--json] [--output F]
//              [--progress] WORDS... [--OPTION VALUE]...
//   witnessctl WORDS... --help
//   witnessctl token create --issuer-key FILE --subject NAME
//              --entitlement PRIVILEGE... [--validity SECONDS]
//   witnessctl token verify FILE|-
//
// The token comes from --token-file or else WITNESSD_TOKEN; the daemon's
// address as for witnessd-agent (tools/DaemonAddress.h). The command catalogue
// read from the daemon is kept under $XDG_CACHE_HOME (else ~/.cache) for the
// next command. Exit status: 0 done, 1 the daemon refused or could not be
// reached, 2 a usage error.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/lumen/Json.h"
#include "tools/Ctl.h"
#include "tools/DaemonAddress.h"
#include "tools/HttpClient.h"

namespace {

using namespace Witnessd::Ctl;
using nlohmann::json;

constexpr const char* kGlobalUsage =
    "usage: witnessctl [--host H] [--port P] [--token-file F] [--json] [--output F] [--progress]\n"
    "                  WORDS... [--OPTION VALUE]...\n"
    "       witnessctl WORDS... --help\n"
    "       witnessctl token create --issuer-key FILE --subject NAME --entitlement PRIVILEGE...\n"
    "                  [--validity SECONDS]\n"
    "       witnessctl token verify FILE|-\n"
    "\n"
    "The token comes from --token-file, else WITNESSD_TOKEN. A command can be called by any tail\n"
    "of its words that names it alone (\"endorsement-keys list\" for \"tpm2 endorsement-keys list\").\n"
    "The commands read from the daemon are kept in $XDG_CACHE_HOME/witnessctl (else ~/.cache).\n";

// Uploads at least this large show their progress on a terminal.
constexpr size_t kProgressThreshold = 1024 * 1024;

struct Args {
  std::string host;
  uint16_t port = 0;
  std::string token_file;
  std::string output;
  bool json = false;
  bool help = false;
  bool progress = false;
  std::vector<std::string> words;
  std::vector<std::pair<std::string, std::string>> options;  // command options, in order
};

int UsageError(const std::string& message) {
  std::fprintf(stderr, "witnessctl: %s\n", message.c_str());
  return kExitUsage;
}

// Parse splits the command line into global options, words and command
// options ("--name value" or "--name=value").
bool Parse(int argc, char** argv, Args* args, std::string* error) {
  Witnessd::Tools::DaemonAddress daemon;
  if (!Witnessd::Tools::DaemonAddressFromEnvironment(&daemon, error)) {
    return false;
  }
  args->host = daemon.host;
  args->port = daemon.port;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "-h" || a == "--help") {
      args->help = true;
      continue;
    }
    if (a == "--json") {
      args->json = true;
      continue;
    }
    if (a == "--progress") {
      args->progress = true;
      continue;
    }
    if (a.rfind("--", 0) != 0 || a.size() == 2) {
      args->words.push_back(a);
      continue;
    }
    std::string name = a.substr(2);
    std::string value;
    if (size_t eq = name.find('='); eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
    } else if (i + 1 < argc) {
      value = argv[++i];
    } else {
      *error = "--" + name + " needs a value";
      return false;
    }
    if (name == "host") {
      args->host = value;
    } else if (name == "port") {
      if (!Witnessd::Tools::ParsePort(value, &args->port)) {
        *error = "--port: not a port: " + value;
        return false;
      }
    } else if (name == "token-file") {
      args->token_file = value;
    } else if (name == "output") {
      args->output = value;
    } else {
      args->options.emplace_back(name, value);
    }
  }
  return true;
}

std::string Trim(std::string s) {
  s.erase(0, s.find_first_not_of(" \t\r\n"));
  s.erase(s.find_last_not_of(" \t\r\n") + 1);
  return s;
}

int TokenCreate(const Args& args) {
  std::string key_file;
  std::string subject;
  std::vector<std::string> entitlements;
  long validity = 3600;
  for (const auto& [name, value] : args.options) {
    if (name == "issuer-key") {
      key_file = value;
    } else if (name == "subject") {
      subject = value;
    } else if (name == "entitlement") {
      entitlements.push_back(value);
    } else if (name == "validity") {
      char* end = nullptr;
      validity = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || validity < 1 || validity > 366L * 24 * 3600) {
        return UsageError("--validity: seconds from 1 to one year, got '" + value + "'");
      }
    } else {
      return UsageError("unknown option --" + name + " of token create");
    }
  }
  if (args.words.size() != 2 || args.words[1] != "create") {
    return UsageError("the token commands are: token create, token verify FILE|-");
  }
  if (key_file.empty() || subject.empty() || entitlements.empty()) {
    return UsageError("token create needs --issuer-key, --subject and at least one --entitlement");
  }
  std::string key_pem;
  std::string error;
  if (!ReadInput(key_file, &key_pem, &error)) {
    return UsageError(error);
  }
  std::string token;
  if (!MintToken(key_pem, subject, entitlements, validity, &token, &error)) {
    return UsageError(error);
  }
  std::printf("%s\n", token.c_str());
  return kExitOk;
}

// TokenVerify checks an attestation token (from a file, or standard input
// for "-") against the daemon's JWK Set and prints its claims.
int TokenVerify(const Args& args) {
  if (args.words.size() != 3 || !args.options.empty()) {
    return UsageError("token verify takes one FILE, or - for standard input");
  }
  std::string token;
  std::string error;
  if (!ReadInput(args.words[2], &token, &error)) {
    return UsageError(error);
  }
  Witnessd::Agent::HttpClient http(args.host, args.port);
  int status = 0;
  std::string jwks;
  if (!http.Get("/jwks.json", &status, &jwks, &error) || status != 200) {
    std::fprintf(stderr, "witnessctl: cannot read the daemon's JWK Set: %s\n",
                 error.empty() ? ("HTTP status " + std::to_string(status)).c_str() : error.c_str());
    return kExitApiError;
  }
  json claims;
  if (!VerifyReportToken(Trim(token), jwks, static_cast<int64_t>(std::time(nullptr)), &claims, &error)) {
    std::fprintf(stderr, "witnessctl: token not valid: %s\n", error.c_str());
    return kExitApiError;
  }
  std::printf("%s\n", claims.dump(2).c_str());
  return kExitOk;
}

void ListCommands(const std::vector<std::string>& words) {
  std::fprintf(stderr, "commands:\n");
  for (const std::string& w : words) {
    std::fprintf(stderr, "  %s\n", w.c_str());
  }
}

int Main(int argc, char** argv);

}  // namespace

int main(int argc, char** argv) {
  // The daemon's metadata and answers are read as JSON of an expected shape;
  // an answer of another shape ends the command, never the process by abort.
  try {
    return Main(argc, argv);
  } catch (const nlohmann::json::exception& e) {
    std::fprintf(stderr, "witnessctl: unexpected answer from the daemon: %s\n", e.what());
    return kExitApiError;
  }
}

namespace {

int Main(int argc, char** argv) {
  Args args;
  std::string error;
  if (!Parse(argc, argv, &args, &error)) {
    return UsageError(error);
  }
  if (args.words.empty()) {
    std::fputs(kGlobalUsage, args.help ? stdout : stderr);
    std::fputs(Witnessd::Tools::kDaemonAddressHelp, args.help ? stdout : stderr);
    return args.help ? kExitOk : kExitUsage;
  }
  if (args.words[0] == "token") {
    return args.words.size() > 1 && args.words[1] == "verify" ? TokenVerify(args) : TokenCreate(args);
  }

  std::string token;
  if (!args.token_file.empty()) {
    if (!ReadInput(args.token_file, &token, &error)) {
      return UsageError("cannot read the token file: " + error);
    }
  } else if (const char* env = std::getenv("WITNESSD_TOKEN"); env != nullptr) {
    token = env;
  }
  ApiSession api(args.host, args.port, Trim(token));
  // The catalogue of the daemon's metadata as it stands now, from the cache
  // when an earlier command read it; the daemon only when that is missing.
  std::string checksum = ProviderChecksum(&api);
  std::string cache = CatalogCachePath(checksum);
  Catalog catalog;
  if ((cache.empty() || !ReadCatalogCache(cache, checksum, &catalog)) && !catalog.Load(&api, &error)) {
    std::fprintf(stderr, "witnessctl: %s\n", error.c_str());
    return kExitApiError;
  }
  size_t index = 0;
  std::vector<std::string> candidates;
  std::string given;
  for (const std::string& w : args.words) {
    given += (given.empty() ? "" : " ") + w;
  }
  Catalog::Found found = catalog.Resolve(args.words, &index, &candidates);
  Command command;
  bool described = found == Catalog::Found::kOne && catalog.Describe(&api, index, &command, &error);
  if (!cache.empty() && catalog.Changed()) {
    // A cache that cannot be written costs the next command time, not this one its result.
    WriteCatalogCache(cache, checksum, catalog);
  }
  switch (found) {
    case Catalog::Found::kOne:
      break;
    case Catalog::Found::kNone:
      std::fprintf(stderr, "witnessctl: no command '%s'\n", given.c_str());
      ListCommands(candidates);
      return kExitUsage;
    case Catalog::Found::kAmbiguous:
      std::fprintf(stderr, "witnessctl: '%s' names several commands\n", given.c_str());
      ListCommands(candidates);
      return kExitUsage;
  }
  if (!described) {
    std::fprintf(stderr, "witnessctl: %s\n", error.c_str());
    return kExitApiError;
  }
  std::string usage = Usage(command, catalog, catalog.DisplayWords(index));
  if (args.help) {
    std::fputs(usage.c_str(), stdout);
    return kExitOk;
  }
  json input;
  if (!BuildInput(command, catalog, args.options, &input, &error)) {
    std::fprintf(stderr, "witnessctl: %s\n\n%s", error.c_str(), usage.c_str());
    return kExitUsage;
  }
  std::vector<std::string> binary_path;
  if (!args.output.empty() && !FindBinary(command.output_type, catalog, &binary_path)) {
    return UsageError("--output: '" + given + "' answers no bytes to write");
  }

  size_t body_size = input.dump().size();
  bool terminal = isatty(STDERR_FILENO) == 1;
  if (args.progress || (terminal && body_size >= kProgressThreshold)) {
    // One rewritten line on a terminal, a line per tenth otherwise.
    api.SetProgress([terminal, last_tenth = -1](size_t sent, size_t total) mutable {
      int tenth = total == 0 ? 10 : static_cast<int>(sent * 10 / total);
      if (terminal) {
        std::fprintf(stderr, "\ruploading: %3d%% (%zu of %zu bytes)", static_cast<int>(sent * 100 / total), sent,
                     total);
        if (sent == total) {
          std::fprintf(stderr, "\n");
        }
      } else if (tenth != last_tenth) {
        std::fprintf(stderr, "uploading: %d%% (%zu of %zu bytes)\n", tenth * 10, sent, total);
      }
      last_tenth = tenth;
    });
  }
  Reply reply = api.Invoke(command.service_id, command.operation_id, input);
  if (!reply.delivered) {
    std::fprintf(stderr, "witnessctl: %s\n", reply.transport_error.c_str());
    return kExitApiError;
  }
  if (!reply.ok) {
    std::fprintf(stderr, "witnessctl: %s\n", reply.error_type.c_str());
    for (const std::string& m : reply.messages) {
      std::fprintf(stderr, "  %s\n", m.c_str());
    }
    return kExitApiError;
  }

  json output = reply.output;
  if (!args.output.empty()) {
    const json& field = binary_path.empty() ? output : output.value(binary_path[0], json());
    std::vector<uint8_t> bytes;
    if (!field.is_string() || !Lumen::Json::Base64Decode(field.get<std::string>(), &bytes)) {
      std::fprintf(stderr, "witnessctl: the answer holds no bytes to write\n");
      return kExitApiError;
    }
    // Exports hold the whole configuration: readable by the owner only.
    umask(077);
    std::ofstream out(args.output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) {
      std::fprintf(stderr, "witnessctl: cannot write %s\n", args.output.c_str());
      return kExitApiError;
    }
  }
  if (args.json) {
    std::printf("%s\n", output.dump(2).c_str());
  } else {
    std::fputs(Render(output, command.output_type, catalog, command.columns).c_str(), stdout);
  }
  return kExitOk;
}

}  // namespace
