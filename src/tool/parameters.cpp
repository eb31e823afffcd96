// The parameter record's way into the tool.
#include "tool/parameters.h"

#include <algorithm>
#include <iterator>

#include "tool/uncalibration_tool.h"

namespace velostrix {

bool SetParam(UnCalibrationTool& tool, const UnCalibrationParam& param) {
  const UnCalibrationParam record = param;

  tool.image_count = record.image_count;
  tool.cols = tool.roi_width = record.width;
  tool.rows = tool.roi_height = record.height;
  tool.row_step = record.row_step;
  tool.plane_size = tool.row_step * tool.rows;

  std::copy(std::begin(record.output_enable), std::end(record.output_enable), tool.output_enable);
  tool.difference_mode = record.difference_mode;
  tool.blur_radius = record.blur_radius;
  tool.iteration_cap = record.iteration_cap;
  tool.factor_offset = record.factor_offset;
  tool.factor_gain = record.factor_gain;
  tool.curvature = record.curvature;
  tool.magnitude = record.magnitude;
  std::copy(std::begin(record.channel), std::end(record.channel), tool.channel);
  std::copy(std::begin(record.reserved), std::end(record.reserved), tool.reserved);
  tool.equalise_on = record.equalise_on;

  tool.scale = record.scale;
  tool.smoothing = 1.0F;
  // Deliberately one-way: only a region that is too small to scale switches scaling off again.
  if (0.99 > record.scale) tool.downscale_on = 1;
  return true;
}

}  // namespace velostrix
