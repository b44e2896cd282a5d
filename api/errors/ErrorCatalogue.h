// The catalogue of API error messages: every message id the services report,
// with its English default text, and the helpers that build standard errors
// from it.
#pragma once

#include <string>
#include <vector>

#include "platform/lumen/Message.h"

namespace Witnessd::AttestApi::Errors {

struct CatalogueEntry {
  const char* id;
  const char* default_message;
};

// Catalogue returns the fixed table, in lookup order; |num_entries| gets its
// length.
const CatalogueEntry* Catalogue(size_t* num_entries);

// LookupMessage returns the default text of the first entry whose id equals
// |id| exactly (case-sensitive), or "Unknown message.".
std::string LookupMessage(const std::string& id);

// MakeMessage builds the localizable message for |id| with its default text
// and |args| (the placeholder values, in order).
Lumen::LocalizableMessage MakeMessage(const std::string& id, std::vector<std::string> args = {});

// Standard errors carrying one catalogue message.
Lumen::StdError InvalidArgument(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError AlreadyExists(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError NotFound(const std::string& id, std::vector<std::string> args = {});
Lumen::StdError Error(const std::string& id, std::vector<std::string> args = {});

}  // namespace Witnessd::AttestApi::Errors
