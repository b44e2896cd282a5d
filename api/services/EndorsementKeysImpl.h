// The endorsement keys service: the administrator's list, get, create and
// delete of trusted EKs, declared by public key, by EK certificate, or both.
#pragma once

#include "api/services/EndorsementKeysSvc.h"

namespace Witnessd::AttestApi {

class EndorsementKeysImpl : public EndorsementKeysSvc {
 public:
  void List(Callback<std::vector<Summary>> done) override;
  void Get(const std::string& name, Callback<Info> done) override;
  void Create(const CreateSpec& args, Callback<Lumen::Void> done) override;
  void Delete(const std::string& name, Callback<Lumen::Void> done) override;
};

}  // namespace Witnessd::AttestApi
