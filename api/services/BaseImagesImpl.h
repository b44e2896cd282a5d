// The base images service: import of a release's signed image database, and
// list, get and delete of the stored trusted base images.
#pragma once

#include "api/services/BaseImagesSvc.h"
#include "trusted/BaseImageStore.h"

namespace Witnessd::AttestApi {

class BaseImagesImpl : public BaseImagesSvc {
 public:
  // |images| is the daemon's base image store; it outlives the service.
  explicit BaseImagesImpl(Trusted::BaseImageStore& images) : images_(images) {}

  void Import(const std::vector<uint8_t>& imgdb, Callback<std::string> done) override;
  void List(Callback<std::vector<Summary>> done) override;
  void Delete(const std::string& version, Callback<Lumen::Void> done) override;
  void Get(const std::string& version, Callback<Info> done) override;

 private:
  Trusted::BaseImageStore& images_;
};

}  // namespace Witnessd::AttestApi
