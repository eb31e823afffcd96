// Derivative maps of the slope maps.
#pragma once

#include <cstdint>
#include <limits>

struct UnCalibrationTool;

namespace velostrix {

// Rows [first, end), cut off at the last row of the frame.
struct RowRange {
  int64_t first = 0;
  int64_t end = std::numeric_limits<int64_t>::max();
};

// Whether the frame has the two rows and three columns that derivatives need.
bool IsDifferentiable(const UnCalibrationTool& tool);

// Both read slope maps of rows x cols floats with stride row_step and write the given rows of maps
// of the same layout, from the row on that the output points to; both clamp tool.smoothing into
// [0.2, 50]; both return 1, also when nothing is written because the frame is not differentiable.
// Central differences span two pixels and are not halved; at the edges a row or column that is
// missing is replaced by the pixel's own. The last two columns repeat the one before.

// dp = dP/dx, dq = dQ/dy; forward differences when tool.difference_mode is 1, else central.
int32_t DeriveSlopeMaps(UnCalibrationTool& tool, const float* p, const float* q, float* dp,
                        float* dq, RowRange rows = {});

// out = dP/dx + dQ/dy in central differences.
int32_t SlopeDivergence(UnCalibrationTool& tool, const float* p, const float* q, float* out,
                        RowRange rows = {});

}  // namespace velostrix
