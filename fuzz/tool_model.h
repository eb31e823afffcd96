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

// The parameters, and the fields of the tool that calls change, under the same names.
struct ToolModel {
  UnCalibrationParam param = {};  // the latest
  RegionOfInterest roi;
  int32_t roi_set = 0;
  int32_t downscale_on = 0;
  int64_t roi_height = 0, roi_width = 0;
  int64_t rows = 0, cols = 0, row_step = 0, plane_size = 0;
  int64_t images_set = 0;
  int64_t allocated_pixels = 0, allocated_stack_bytes = 0;

  void SetParam(const UnCalibrationParam& given);
  bool SetRegion(int32_t x1, int32_t y1, int32_t x2, int32_t y2);
  int64_t ClearRegion(int32_t rows_, int32_t cols_, int32_t row_step_);

  // Takes the working size that InitialImage computes. Whether InitialImage then allocates.
  bool TakeScaledSize();
  void TakeBuffers(bool had_memory);
  void DropBuffers();

  // Whether the buffers hold the frame and so many images.
  bool Holds(int64_t count) const;
  bool IsOn(int output) const;
  Outcome ImageOutcome(const cv::Mat& image) const;
  // has_place: for each output, whether the caller gives it one.
  Outcome RunOutcome(RunKind run, int32_t band, const std::array<bool, 8>& has_place) const;
};

// The fields that must agree between a tool and its model.
template <typename Tool>
std::array<int64_t, 15> ComparedFields(const Tool& t) {
  return {t.roi.x,      t.roi.y,        t.roi.width,  t.roi.height,       t.roi_set,
          t.roi_width,  t.rows,         t.cols,       t.row_step,         t.plane_size,
          t.roi_height, t.downscale_on, t.images_set, t.allocated_pixels, t.allocated_stack_bytes};
}

}  // namespace velostrix::fuzz
