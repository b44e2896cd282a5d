// witnessctl's output for people: tables, "field: value" lines and the
// texts of localizable messages.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/CtlCatalogue.h"

namespace Witnessd::Ctl {

// MessageText is the text of a localizable message: its default message
// with its arguments filled in.
std::string MessageText(const nlohmann::json& message);

// Render writes an output for people: scalars as they are, a structure as
// "field: value" lines, a list of structures as a table with a column per
// field, localizable messages as their text. Binary fields show their size.
std::string Render(const nlohmann::json& value, const nlohmann::json& type, const Catalog& catalog,
                   const std::vector<std::string>& columns = {});

// FindBinary returns the path of the first binary field in |type| (empty
// for a binary output itself), or false when there is none.
bool FindBinary(const nlohmann::json& type, const Catalog& catalog, std::vector<std::string>* path);

}  // namespace Witnessd::Ctl
