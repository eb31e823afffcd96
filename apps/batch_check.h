// Whether the parts of a batch can be run, before the first is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/batch_workers.h"
#include "apps/manifest.h"

namespace velostrix::cli {

// Adds what is wrong with the parts to the problems, from the headers of their files and from what
// is in the folders of their results. Returns the most pixels that one of their images has.
// Bits may be left open where they are yet to be chosen.
int64_t CheckParts(const std::vector<ManifestPart>& parts, const BatchPlan& plan,
                   bool may_leave_bits_open, std::vector<std::string>& problems);

}  // namespace velostrix::cli
