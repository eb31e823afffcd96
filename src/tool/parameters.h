// The parameter record's way into the tool.
#pragma once

#include "velostrix/records.h"

struct UnCalibrationTool;

namespace velostrix {

// Copies the record into the tool; always true. Touches neither the region nor the buffers.
bool SetParam(UnCalibrationTool& tool, const UnCalibrationParam& param);

}  // namespace velostrix
