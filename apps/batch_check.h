// Checks the parts of a batch before the first one is run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/batch_workers.h"
#include "apps/manifest.h"

namespace velostrix::cli {

// Checks the headers of the parts' files and the folders of their results, and adds what is wrong
// to the problems. Returns the number of pixels of the largest image. Bits may be open when they
// are still to be chosen.
int64_t CheckParts(const std::vector<ManifestPart>& parts, const BatchPlan& plan,
                   bool may_leave_bits_open, std::vector<std::string>& problems);

}  // namespace velostrix::cli
