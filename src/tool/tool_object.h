// Creation and destruction of the tool object.
#pragma once

struct UnCalibrationTool;

namespace velostrix {

// A tool with the default of every field, also stored in *out when out is not null.
UnCalibrationTool* CreateTool(UnCalibrationTool** out);

// Frees the tool, its matrices and column levels. The working buffers are ReleaseImage's.
void DestroyTool(UnCalibrationTool* tool);

}  // namespace velostrix
