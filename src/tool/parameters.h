// The parameters of a tool.
#pragma once

#include "velostrix/records.h"

struct UnCalibrationTool;

namespace velostrix {

// Copies the record into the tool; always true. Touches neither the region nor the buffers.
bool SetParam(UnCalibrationTool& tool, const UnCalibrationParam& param);

// Whether a run makes an output (an index of VelostrixOutput): it is switched on, or it is a
// channel and the normal image is.
bool IsOn(const UnCalibrationTool& tool, int output);

}  // namespace velostrix
