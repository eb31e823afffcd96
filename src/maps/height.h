// Height from slopes by least squares (Horn and Brooks 1986).
// Plain counterpart: bench/reference/reference_height.cpp.
#pragma once

#include <cstdint>

struct UnCalibrationTool;

namespace velostrix {

// Integrates the slope maps p and q into *height_map (all rows x cols floats with stride row_step):
// the z that minimises, over all pixels, (z[i][j+1] - z[i][j] - p)^2 + (z[i+1][j] - z[i][j] + q)^2,
// with z = 0 beyond the right and the bottom edge, after at most tool.iteration_cap
// conjugate-gradient steps. Always true. Out of memory: std::bad_alloc.
bool IntegrateHeight(const UnCalibrationTool& tool, const float* p, const float* q,
                     float** height_map);

// A problem of rows x cols unknowns, both at least 1. Maps share one stride, in elements.
struct HeightProblem {
  int64_t rows;
  int64_t cols;
  int64_t stride;
  const float* p;         // z[i][j + 1] - z[i][j] wanted
  const float* q;         // z[i][j] - z[i + 1][j] wanted
  int32_t iteration_cap;  // negative: twice the number of unknowns
};

// Writes the solution to z and returns the number of finished iterations. The bytes of z do not
// depend on the number of threads.
int64_t SolveHeight(const HeightProblem& problem, float* z);

}  // namespace velostrix
