// What a tool's state must be after each call: the documented rules, written a second time.
#pragma once

#include <array>
#include <cstdint>
#include <opencv2/core/mat.hpp>

#include "pipeline/run.h"
#include "tool/uncalibration_tool.h"

namespace velostrix::fuzz {

// What a call may do: return a value, throw cv::Exception, or, where OpenCV decides, either.
enum class Outcome { kDone, kRefused, kThrows, kDoneOrThrows, kRefusedOrThrows };

// The fields of the tool that calls change, under the same names and with the same defaults.
struct ToolModel {
  RegionOfInterest roi;
  int32_t roi_set = 0;
  int32_t output_enable[VELOSTRIX_OUTPUT_COUNT] = {};
  int32_t blur_radius = 0, iteration_cap = 50, downscale_on = 0, equalise_on = 0;
  double scale = 1.0;
  int64_t roi_height = 0, roi_width = 0;
  int64_t rows = 0, cols = 0, row_step = 0, plane_size = 0;
  int64_t image_count = 0, images_set = 0;
  int64_t allocated_pixels = 0, allocated_stack_bytes = 0;

  void SetParam(const UnCalibrationParam& param);
  bool SetRegion(int32_t x1, int32_t y1, int32_t x2, int32_t y2);
  int64_t ClearRegion(int32_t rows_, int32_t cols_, int32_t row_step_);

  // Takes the working size that InitialImage computes. Whether InitialImage then allocates.
  bool TakeScaledSize();
  void TakeBuffers(bool had_memory);
  void DropBuffers();

  bool HoldsFrame() const;
  bool HoldsImages(int64_t count) const;
  bool IsOn(int output) const;
  Outcome ImageOutcome(const cv::Mat& image) const;
  Outcome RunOutcome(RunKind run, int32_t band, const std::array<cv::Mat*, 8>& results) const;
};

// The fields that must agree between a tool and its model.
template <typename Tool>
std::array<int64_t, 20> ComparedFields(const Tool& tool) {
  int64_t switches = 0;
  for (const int32_t on : tool.output_enable) switches = switches * 2 + (on != 0);
  return {tool.roi.x,        tool.roi.y,       tool.roi.width,        tool.roi.height,
          tool.roi_set,      switches,         tool.blur_radius,      tool.iteration_cap,
          tool.downscale_on, tool.equalise_on, tool.roi_height,       tool.roi_width,
          tool.rows,         tool.cols,        tool.row_step,         tool.plane_size,
          tool.image_count,  tool.images_set,  tool.allocated_pixels, tool.allocated_stack_bytes};
}

}  // namespace velostrix::fuzz
