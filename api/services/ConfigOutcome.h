// The answers of the services that read and delete named configuration
// items, from the configuration layer's result codes: one place for the
// mapping the endorsement key and CA certificate services share.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "api/errors/ErrorCatalogue.h"
#include "config/Configuration.h"
#include "platform/lumen/Message.h"

namespace Witnessd::AttestApi {

// ReadOutcome: the item on kConfigOk, NOT_FOUND without a message, ERROR with
// |invalid_data_id| for a stored item that does not parse, ERROR otherwise.
template <class T>
Lumen::Outcome<T> ReadOutcome(Config::ConfigResult result, T item, const char* invalid_data_id) {
  switch (result) {
    case Config::ConfigResult::kConfigOk:
      return item;
    case Config::ConfigResult::kConfigNotFound:
      return Com::Quarro::Lumen::Std::Errors::NotFound({});
    case Config::ConfigResult::kConfigInvalidData:
      return Errors::Error(invalid_data_id);
    default:
      return Com::Quarro::Lumen::Std::Errors::Error();
  }
}

// CreateOutcome: nothing on kConfigOk, ALREADY_EXISTS with |exists_id| and
// the item's name for a taken name, ALREADY_EXISTS with |duplicate_id| (when
// given) for an item stored under another name, ERROR otherwise.
inline Lumen::Outcome<Lumen::Void> CreateOutcome(Config::ConfigResult result, const char* exists_id,
                                                 const std::string& name, const char* duplicate_id = nullptr) {
  switch (result) {
    case Config::ConfigResult::kConfigOk:
      return Lumen::Void{};
    case Config::ConfigResult::kConfigAlreadyExists:
      return Errors::AlreadyExists(exists_id, {name});
    case Config::ConfigResult::kConfigDuplicate:
      if (duplicate_id != nullptr) {
        return Errors::AlreadyExists(duplicate_id);
      }
      return Com::Quarro::Lumen::Std::Errors::Error();
    default:
      return Com::Quarro::Lumen::Std::Errors::Error();
  }
}

// DeleteOutcome: nothing on kConfigOk, NOT_FOUND without a message, ERROR
// otherwise.
inline Lumen::Outcome<Lumen::Void> DeleteOutcome(Config::ConfigResult result) {
  switch (result) {
    case Config::ConfigResult::kConfigOk:
      return Lumen::Void{};
    case Config::ConfigResult::kConfigNotFound:
      return Com::Quarro::Lumen::Std::Errors::NotFound({});
    default:
      return Com::Quarro::Lumen::Std::Errors::Error();
  }
}

// ListOutcome: one summary per name, in store order, or ERROR.
template <class Summary>
Lumen::Outcome<std::vector<Summary>> ListOutcome(Config::ConfigResult result, std::vector<std::string> names) {
  if (result != Config::ConfigResult::kConfigOk) {
    return Com::Quarro::Lumen::Std::Errors::Error();
  }
  std::vector<Summary> out;
  for (std::string& name : names) {
    out.push_back({std::move(name)});
  }
  return out;
}

}  // namespace Witnessd::AttestApi
