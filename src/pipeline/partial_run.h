// The partial uncalibrated runs, over bands of rows and over strips of columns.
#pragma once

#include <cstdint>

#include "pipeline/run_steps.h"

namespace velostrix {

// A band below 10 counts as 10.
int32_t RunPartRows(UnCalibrationTool& tool, const ResultImages& results, int32_t band);
int32_t RunPartCols(UnCalibrationTool& tool, const ResultImages& results, int32_t band);

}  // namespace velostrix
