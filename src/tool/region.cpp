// The region of interest and the working size that follows from it.
#include "tool/region.h"

#include <algorithm>
#include <limits>

#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Corners at the ends of the int32 range give extents beyond int32; such regions are empty.
int32_t Saturated(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                  std::numeric_limits<int32_t>::max()));
}

void SetWorkingSize(UnCalibrationTool& tool, int64_t rows, int64_t cols) {
  tool.rows = rows;
  tool.cols = tool.row_step = cols;
  tool.plane_size = rows * cols;
}

}  // namespace

bool SetRegion(UnCalibrationTool& tool, int32_t x1, int32_t y1, int32_t x2, int32_t y2) {
  // Deliberately clamped to the working size that an earlier region or scale has left.
  const int32_t x = std::max(x1, 0);
  const int32_t y = std::max(y1, 0);
  const int64_t width = std::min<int64_t>(x2, tool.cols - 1) - x + 1;
  const int64_t height = std::min<int64_t>(y2, tool.rows - 1) - y + 1;
  const double scaled_width = static_cast<double>(width) * tool.scale;
  const double scaled_height = static_cast<double>(height) * tool.scale;
  const bool is_region = width > 0 && height > 0;
  const bool is_scaled = tool.downscale_on == 1 && scaled_width > 10.0 && scaled_height > 10.0;
  // Scaling may still be on from earlier parameters when the scale is no longer valid.
  if (is_region && is_scaled && !(IsSize(scaled_width) && IsSize(scaled_height))) return false;

  tool.roi = {x, y, Saturated(width), Saturated(height)};
  tool.roi_set = is_region ? 1 : 0;
  if (!is_region) return false;

  tool.roi_width = width;
  tool.roi_height = height;
  if (is_scaled) {
    SetWorkingSize(tool, static_cast<int64_t>(scaled_height), static_cast<int64_t>(scaled_width));
  } else {
    tool.downscale_on = 0;
    SetWorkingSize(tool, height, width);
  }
  return true;
}

int64_t ClearRegion(UnCalibrationTool& tool, int32_t rows, int32_t cols, int32_t row_step) {
  tool.roi = {};
  tool.roi_set = 0;
  tool.rows = rows;
  tool.cols = cols;
  tool.row_step = row_step;
  tool.plane_size = tool.rows * tool.row_step;
  return tool.plane_size;
}

}  // namespace velostrix
