// The region of interest and the working size that follows from it.
#pragma once

#include <cstdint>
#include <limits>

struct UnCalibrationTool;

namespace velostrix {

// Whether a scaled extent in pixels is one that an image can have.
inline bool IsSize(double extent) {
  return extent >= 0.0 && extent <= std::numeric_limits<int32_t>::max();
}

// Sets the region with the inclusive corners (x1, y1), (x2, y2), clamped to the current working
// size, and sets the working size to the region's, scaled when scaling is on. False: the region is
// empty, or has no valid scaled size; in the second case nothing has changed.
bool SetRegion(UnCalibrationTool& tool, int32_t x1, int32_t y1, int32_t x2, int32_t y2);

// Removes the region, sets the working size as given and returns rows x row_step.
int64_t ClearRegion(UnCalibrationTool& tool, int32_t rows, int32_t cols, int32_t row_step);

}  // namespace velostrix
