// The steps that all runs share: refusals, results over the tool's planes, the images of the light
// stage's maps, the height image.
#include "pipeline/run_steps.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "base/serial_opencv.h"
#include "maps/byte_maps.h"
#include "maps/height.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Kernels beyond this serve no image and their cost has no bound.
constexpr int32_t kLargestBlurRadius = 32767;

bool IsChannelOn(const UnCalibrationTool& tool, int channel) {
  return IsOn(tool, VELOSTRIX_OUTPUT_CHANNEL0 + channel) || IsOn(tool, VELOSTRIX_OUTPUT_NORMAL);
}

}  // namespace

bool IsOn(const UnCalibrationTool& tool, int output) { return tool.output_enable[output] != 0; }

bool CanDeliver(const UnCalibrationTool& tool, const ResultImages& results) {
  const bool has_places =
      (!IsOn(tool, VELOSTRIX_OUTPUT_FACTOR) || results.factor != nullptr) &&
      (!IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE) || results.curvature != nullptr) &&
      (!IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE) || results.magnitude != nullptr) &&
      (!IsOn(tool, VELOSTRIX_OUTPUT_NORMAL) || results.normal != nullptr) &&
      (!IsOn(tool, VELOSTRIX_OUTPUT_HEIGHT) || results.height != nullptr);
  for (int channel = 0; channel < 3; ++channel) {
    if (IsChannelOn(tool, channel) && results.channel[channel] == nullptr) return false;
  }
  const int32_t* const outputs = tool.output_enable;
  const bool delivers = std::any_of(outputs, outputs + VELOSTRIX_OUTPUT_COUNT,
                                    [](int32_t output) { return output != 0; });
  const bool resizes = delivers && tool.downscale_on == 1;
  const bool blurs =
      IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE) || IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE);
  return has_places && !(blurs && tool.blur_radius > kLargestBlurRadius) &&
         !(resizes && (tool.roi_width < 1 || tool.roi_height < 1));
}

cv::Mat PlaneHeader(const UnCalibrationTool& tool, void* plane, int type) {
  return {static_cast<int>(tool.rows), static_cast<int>(tool.cols), type, plane,
          static_cast<size_t>(tool.row_step) * CV_ELEM_SIZE(type)};
}

void ResizeBack(const UnCalibrationTool& tool, cv::Mat& result) {
  if (tool.downscale_on != 1) return;
  const cv::Size size(static_cast<int>(tool.roi_width), static_cast<int>(tool.roi_height));
  OnThisThread([&] { cv::resize(result, result, size, 0, 0, cv::INTER_LINEAR); });
}

void DeliverPlane(const UnCalibrationTool& tool, void* plane, int type, cv::Mat& result) {
  result = PlaneHeader(tool, plane, type);
  ResizeBack(tool, result);
}

void Blur(const UnCalibrationTool& tool, const cv::Mat& source, cv::Mat& destination) {
  const int32_t diameter = 2 * tool.blur_radius;
  const double s = diameter / 3.0;
  const double sigma = 0.5 * std::sqrt((s + 2.0) * s);
  const cv::Size size(diameter + 1, diameter + 1);
  OnThisThread(
      [&] { cv::GaussianBlur(source, destination, size, sigma, sigma, cv::BORDER_DEFAULT); });
}

bool DeliverMapImages(UnCalibrationTool& tool, const ResultImages& results) {
  if (IsOn(tool, VELOSTRIX_OUTPUT_FACTOR)) {
    MapToByteNormalized(tool, tool.factor_map, tool.factor_plane, tool.factor_gain);
    DeliverPlane(tool, tool.factor_plane, CV_8UC1, *results.factor);
  }
  const float* const maps[] = {tool.slope_p, tool.slope_q, tool.gated_factor_map};
  for (int channel = 0; channel < 3; ++channel) {
    if (!IsChannelOn(tool, channel)) continue;
    const OutputScaling& scaling = tool.channel[channel];
    if (MapToByteLinear(tool, maps[channel], tool.channel_plane[channel], scaling.gain,
                        scaling.offset) == 0) {
      return false;
    }
    DeliverPlane(tool, tool.channel_plane[channel], CV_8UC1, *results.channel[channel]);
  }
  if (IsOn(tool, VELOSTRIX_OUTPUT_NORMAL)) {
    const std::vector<cv::Mat> channels = {*results.channel[0], *results.channel[1],
                                           *results.channel[2]};
    cv::merge(channels, *results.normal);
  }
  return true;
}

bool DeliverHeight(UnCalibrationTool& tool, const ResultImages& results) {
  if (!IsOn(tool, VELOSTRIX_OUTPUT_HEIGHT)) return true;
  if (!IntegrateHeight(tool, tool.slope_p, tool.slope_q, &tool.height_map)) return false;
  MapToWordNormalized(tool, tool.height_map, tool.height_plane);
  DeliverPlane(tool, tool.height_plane, CV_16UC1, *results.height);
  return true;
}

}  // namespace velostrix
