// The full-frame runs, uncalibrated and calibrated: one driver, the light stage its parameter.
#include "pipeline/full_frame_run.h"

#include <algorithm>
#include <opencv2/core.hpp>

#include "maps/byte_maps.h"
#include "maps/derivative_maps.h"
#include "orientation/calibrated_lights.h"
#include "orientation/factorize_full_frame.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Milliseconds since the tool's tick mark, which moves to now.
double LapMs(UnCalibrationTool& tool) {
  const double elapsed =
      (static_cast<double>(cv::getTickCount()) - tool.tick_mark) / cv::getTickFrequency() * 1000.0;
  tool.tick_mark = static_cast<double>(cv::getTickCount());
  return elapsed;
}

// Takes one of two offsets off again. Wraps at the lowest value, like the sum that it goes into.
int32_t NegatedOffset(int32_t offset) { return static_cast<int32_t>(-int64_t{offset}); }

// The derivatives of the slope maps, row by row: a row is derived when it is asked for and stays in
// the cache, except that smoothing needs whole maps.
class DerivativeRows {
 public:
  explicit DerivativeRows(UnCalibrationTool& tool) : tool_(tool), smooth_(tool.blur_radius >= 1) {
    if (!IsDifferentiable(tool)) {
      for (float* map : {tool.deriv_p, tool.deriv_q}) {
        std::fill_n(map, tool.rows * tool.row_step, 0.0F);
      }
    }
    if (!smooth_) return;
    DeriveSlopeMaps(tool, tool.slope_p, tool.slope_q, tool.deriv_p, tool.deriv_q);
    cv::Mat blurred_p = PlaneHeader(tool, tool.blurred_deriv_p, CV_32FC1);
    cv::Mat blurred_q = PlaneHeader(tool, tool.blurred_deriv_q, CV_32FC1);
    Blur(tool, PlaneHeader(tool, tool.deriv_p, CV_32FC1), blurred_p);
    Blur(tool, PlaneHeader(tool, tool.deriv_q, CV_32FC1), blurred_q);
  }

  struct Row {
    const float* p;
    const float* q;
  };

  // Valid until the next call.
  Row At(int64_t i) {
    const int64_t at = i * tool_.row_step;
    if (smooth_) return {tool_.blurred_deriv_p + at, tool_.blurred_deriv_q + at};
    DeriveSlopeMaps(tool_, tool_.slope_p, tool_.slope_q, tool_.deriv_p, tool_.deriv_q, {i, i + 1});
    return {tool_.deriv_p, tool_.deriv_q};
  }

 private:
  UnCalibrationTool& tool_;
  const bool smooth_;
};

void MakeCurvatureRow(const UnCalibrationTool& tool, const DerivativeRows::Row& row, uint8_t* out) {
  const OutputScaling& scaling = tool.curvature;
  const FrameExtent one_row(1, tool.cols, tool.row_step);
  MapToByteLinear(one_row, row.p, tool.derivative_half[0], scaling.gain, scaling.offset);
  MapToByteLinear(one_row, row.q, tool.derivative_half[1], scaling.gain, scaling.offset);
  SumBytes(one_row, tool.derivative_half[0], tool.derivative_half[1], out,
           NegatedOffset(scaling.offset));
}

void MakeMagnitudeRow(const UnCalibrationTool& tool, const DerivativeRows::Row& row, uint8_t* out) {
  const OutputScaling& scaling = tool.magnitude;
  const FrameExtent one_row(1, tool.cols, tool.row_step);
  // The derivative of P deliberately has no part in this image: the half of Q is summed with
  // itself.
  MapToByteAbsLinear(one_row, row.q, tool.derivative_half[0], scaling.gain, scaling.offset);
  SumBytes(one_row, tool.derivative_half[0], tool.derivative_half[0], out,
           NegatedOffset(scaling.offset));
}

void DeliverDerivativeImages(UnCalibrationTool& tool, const ResultImages& results) {
  const bool curvature = IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE);
  const bool magnitude = IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE);
  if (!curvature && !magnitude) return;

  DerivativeRows rows(tool);
  for (int64_t i = 0; i < tool.rows; ++i) {
    const DerivativeRows::Row row = rows.At(i);
    const int64_t at = i * tool.row_step;
    if (curvature) MakeCurvatureRow(tool, row, tool.curvature_plane + at);
    if (magnitude) MakeMagnitudeRow(tool, row, tool.magnitude_plane + at);
  }
  if (curvature) DeliverPlane(tool, tool.curvature_plane, CV_8UC1, *results.curvature);
  if (magnitude) DeliverPlane(tool, tool.magnitude_plane, CV_8UC1, *results.magnitude);
}

template <typename LightStage>
int32_t RunFullFrame(UnCalibrationTool& tool, const ResultImages& results, LightStage light_stage) {
  if (!CanDeliver(tool, results)) return 0;
  tool.tick_mark = static_cast<double>(cv::getTickCount());
  const int32_t lit =
      light_stage(tool, tool.factor_map, tool.slope_p, tool.slope_q, tool.gated_factor_map);
  tool.time_light_stage_ms = LapMs(tool);
  if (lit == 0) return 0;

  if (!DeliverMapImages(tool, results)) return 0;
  tool.time_map_images_ms = LapMs(tool);
  DeliverDerivativeImages(tool, results);
  tool.time_derivative_images_ms = LapMs(tool);
  if (!DeliverHeight(tool, results)) return 0;
  tool.images_set = 0;
  return 1;
}

}  // namespace

int32_t RunUncalibrated(UnCalibrationTool& tool, const ResultImages& results) {
  return RunFullFrame(tool, results, FactorizeIntensities);
}

int32_t RunCalibrated(UnCalibrationTool& tool, const ResultImages& results) {
  return RunFullFrame(tool, results, SolveCalibratedLights);
}

}  // namespace velostrix
