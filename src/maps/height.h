// Height from slopes by least squares.
#pragma once

struct UnCalibrationTool;

namespace velostrix {

// Integrates the slope maps p and q into *height_map (all rows x cols floats with stride row_step):
// the z that minimises, over all pixels, (z[i][j+1] - z[i][j] - p)^2 + (z[i+1][j] - z[i][j] + q)^2,
// with z = 0 beyond the right and the bottom edge, after at most tool.iteration_cap
// conjugate-gradient steps. Always true. Out of memory: std::bad_alloc.
bool IntegrateHeight(const UnCalibrationTool& tool, const float* p, const float* q,
                     float** height_map);

}  // namespace velostrix
