// witnessctl's input: files and standard input, the conversion of
// "--name value" options into an operation's input, and a command's help.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/CtlCatalogue.h"

namespace Witnessd::Ctl {

// ReadInput reads the whole file |name|, or standard input for "-".
bool ReadInput(const std::string& name, std::string* out, std::string* error);

// BuildInput turns "--name value" pairs into an operation's input. Values:
// booleans true/false (yes/no, on/off, 1/0); strings as given or "@FILE" for
// a file's content ("@-" standard input); binary fields a file name ("-"
// standard input); enumerations one of their values; lists by repeating the
// option (a file of several PEM blocks given to a list of strings gives one
// element per block); structures and "any" as JSON text or "@FILE" of JSON.
// Returns false with |error| naming the option on a bad value, an unknown
// option or a required one missing.
bool BuildInput(const Command& command, const Catalog& catalog,
                const std::vector<std::pair<std::string, std::string>>& options, nlohmann::json* input,
                std::string* error);

// Usage is the help text of one command.
std::string Usage(const Command& command, const Catalog& catalog, const std::string& words);

}  // namespace Witnessd::Ctl
