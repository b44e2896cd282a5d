// Import of a hypervisor release's image database (gzip-compressed tar) as a
// new trusted base image: the maker-signed "hyv-base" and "hyv-update"
// packages are verified and their payload checksums stored under the
// "hyv-base" version.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trusted/BaseImageStore.h"

namespace Witnessd::Trusted {

enum class ImportResult : int {
  kImported = 0,
  kVersionExists = 1,
  kFailed = 2,
};

// ImportBaseImage decompresses |compressed|, checks both packages against the
// maker's certificate file and stores the base image in one write, so a
// failed import stores nothing. |out_version| is set on kImported and on
// kVersionExists.
ImportResult ImportBaseImage(BaseImageStore& images, const std::vector<uint8_t>& compressed, std::string& out_version);

}  // namespace Witnessd::Trusted
