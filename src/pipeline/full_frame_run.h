// The full-frame runs, uncalibrated and calibrated.
#pragma once

#include <cstdint>

#include "pipeline/run_steps.h"

namespace velostrix {

int32_t RunUncalibrated(UnCalibrationTool& tool, const ResultImages& results);
int32_t RunCalibrated(UnCalibrationTool& tool, const ResultImages& results);

}  // namespace velostrix
