// The parameters of a tool.
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
  tool.curvature_offset = record.curvature.offset;
  tool.curvature_gain = record.curvature.gain;
  tool.magnitude_offset = record.magnitude.offset;
  tool.magnitude_gain = record.magnitude.gain;
  for (int k = 0; k < 3; ++k) {
    tool.channel_offset[k] = record.channel[k].offset;
    tool.channel_gain[k] = record.channel[k].gain;
  }
  std::copy(std::begin(record.reserved), std::end(record.reserved), tool.reserved);
  tool.equalise_on = record.equalise_on;

  tool.scale = record.scale;
  tool.smoothing = 1.0F;
  // Deliberately one-way: only a region that is too small to scale switches scaling off again.
  if (0.99 > record.scale) tool.downscale_on = 1;
  return true;
}

bool IsOn(const UnCalibrationTool& tool, int output) {
  const bool is_channel =
      output >= VELOSTRIX_OUTPUT_CHANNEL0 && output <= VELOSTRIX_OUTPUT_CHANNEL2;
  return tool.output_enable[output] != 0 ||
         (is_channel && tool.output_enable[VELOSTRIX_OUTPUT_NORMAL] != 0);
}

}  // namespace velostrix
