// What one `velostrix reconstruct` did, as it is kept in run.json.
#pragma once

#include <string>
#include <vector>

#include "apps/diagnostics.h"
#include "apps/input_images.h"
#include "apps/reconstruct_options.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

struct RunRecord {
  std::vector<InputImage> inputs;
  Diagnostics diagnostics;
  Parameters parameters;  // as used, chosen gains included
  CallTimes calls;
  double load_ms = 0.0;
  double choose_gains_ms = 0.0;
};

std::string ToJson(const RunRecord& record, const ReconstructOptions& options,
                   const Request& request);

}  // namespace velostrix::cli
