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
  int bits = 0;  // in use of 16-bit samples; 0 when there are none
  Diagnostics diagnostics;
  Parameters parameters;  // as used, chosen gains included
  CallTimes calls;
  double load_ms = 0.0;
  double choose_gains_ms = 0.0;
};

constexpr const char* kRecordName = "run.json";

// Of a result.
std::string FileName(Output output);

std::string ToJson(const RunRecord& record, const ReconstructOptions& options,
                   const Request& request);

}  // namespace velostrix::cli
