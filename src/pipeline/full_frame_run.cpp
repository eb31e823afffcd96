// The full-frame runs, uncalibrated and calibrated: one driver, the light stage its parameter.
#include "pipeline/full_frame_run.h"

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

void DeliverCurvature(UnCalibrationTool& tool, const float* x, const float* y, cv::Mat& result) {
  const OutputScaling& scaling = tool.curvature;
  MapToByteLinear(tool, x, tool.derivative_half[0], scaling.gain, scaling.offset);
  MapToByteLinear(tool, y, tool.derivative_half[1], scaling.gain, scaling.offset);
  SumBytes(tool, tool.derivative_half[0], tool.derivative_half[1], tool.curvature_plane,
           NegatedOffset(scaling.offset));
  DeliverPlane(tool, tool.curvature_plane, CV_8UC1, result);
}

void DeliverMagnitude(UnCalibrationTool& tool, const float* y, cv::Mat& result) {
  const OutputScaling& scaling = tool.magnitude;
  // The derivative of P deliberately has no part in this image: the half of Q is summed with
  // itself.
  MapToByteAbsLinear(tool, y, tool.derivative_half[0], scaling.gain, scaling.offset);
  SumBytes(tool, tool.derivative_half[0], tool.derivative_half[0], tool.magnitude_plane,
           NegatedOffset(scaling.offset));
  DeliverPlane(tool, tool.magnitude_plane, CV_8UC1, result);
}

void DeliverDerivativeImages(UnCalibrationTool& tool, const ResultImages& results) {
  const bool curvature = IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE);
  const bool magnitude = IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE);
  if (!curvature && !magnitude) return;

  DeriveSlopeMaps(tool, tool.slope_p, tool.slope_q, tool.deriv_p, tool.deriv_q);
  const float* x = tool.deriv_p;
  const float* y = tool.deriv_q;
  if (tool.blur_radius >= 1) {
    cv::Mat blurred_p = PlaneHeader(tool, tool.blurred_deriv_p, CV_32FC1);
    cv::Mat blurred_q = PlaneHeader(tool, tool.blurred_deriv_q, CV_32FC1);
    Blur(tool, PlaneHeader(tool, tool.deriv_p, CV_32FC1), blurred_p);
    Blur(tool, PlaneHeader(tool, tool.deriv_q, CV_32FC1), blurred_q);
    x = tool.blurred_deriv_p;
    y = tool.blurred_deriv_q;
  }
  if (curvature) DeliverCurvature(tool, x, y, *results.curvature);
  if (magnitude) DeliverMagnitude(tool, y, *results.magnitude);
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
