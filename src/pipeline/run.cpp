// The four runs: from the images of a tool to its results.
//
// Memory limits the speed, so a row is taken through all stages while it is in the cache:
//   1. the light stage looks at the images as a whole (a decomposition; nothing when calibrated);
//   2. the range of the factor map, if the factor image is requested, from the bytes alone;
//   3. row by row: working maps, factor and channel images; a row behind, curvature and magnitude.
// Whole maps are kept only for later stages: slopes for the height, derivatives for smoothing.
#include "pipeline/run.h"

#include <algorithm>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "base/serial_opencv.h"
#include "base/stopwatch.h"
#include "maps/byte_maps.h"
#include "maps/derivative_images.h"
#include "maps/height.h"
#include "orientation/calibrated_lights.h"
#include "orientation/factorize_intensities.h"
#include "tool/buffers.h"
#include "tool/parameters.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Narrower pieces are widened to this; deliberate.
constexpr int64_t kSmallestBand = 10;

// Kernels beyond this serve no image and their cost has no bound.
constexpr int32_t kLargestBlurRadius = 32767;

bool IsPartial(RunKind kind) { return kind == RunKind::kPartRows || kind == RunKind::kPartCols; }

bool MakesDerivativeImages(const UnCalibrationTool& tool) {
  return IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE) || IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE);
}

// Pixels of the smallest piece that is factored.
int64_t SmallestPiece(const UnCalibrationTool& tool, RunKind kind, int64_t band) {
  switch (kind) {
    case RunKind::kPartRows:
      return ((tool.rows - 1) % band + 1) * tool.cols;
    case RunKind::kPartCols:  // strips after the first are at least two columns wide
      return tool.rows * std::min(band, tool.cols);
    default:
      return tool.rows * tool.cols;
  }
}

// Everything that makes a run refuse, in the order of the public header.
bool IsRefused(const UnCalibrationTool& tool, const ResultImages& results, RunKind kind,
               int64_t band) {
  if (!BuffersHoldImages(tool)) return true;

  const cv::Mat* const places[VELOSTRIX_OUTPUT_COUNT] = {
      results.factor,     results.curvature,  results.magnitude,  results.height,
      results.channel[0], results.channel[1], results.channel[2], results.normal};
  bool delivers = false;
  for (int output = 0; output < VELOSTRIX_OUTPUT_COUNT; ++output) {
    if (!IsOn(tool, output)) continue;
    if (places[output] == nullptr) return true;
    delivers = true;
  }
  if (MakesDerivativeImages(tool) && tool.blur_radius > kLargestBlurRadius) return true;
  if (delivers && tool.downscale_on == 1 && (tool.roi_width < 1 || tool.roi_height < 1))
    return true;

  constexpr int64_t kVectors = 3;
  if (kind != RunKind::kCalibrated && SmallestPiece(tool, kind, band) < kVectors) return true;
  return kind == RunKind::kPartCols && tool.rows < 2;
}

// Makes row i of the factor image and of the channel images.
void MakeMapImageRows(const UnCalibrationTool& tool, int64_t i, const MapRow& maps,
                      const Range& factor_range) {
  const int64_t at = i * tool.row_step;
  if (IsOn(tool, VELOSTRIX_OUTPUT_FACTOR)) {
    MapToByteNormalized(maps.factor, tool.cols, tool.row_step, factor_range, tool.factor_gain,
                        tool.factor_plane + at);
  }
  const float* const channels[] = {maps.slope_p, maps.slope_q, maps.gated_factor};
  for (int k = 0; k < 3; ++k) {
    if (!IsOn(tool, VELOSTRIX_OUTPUT_CHANNEL0 + k)) continue;
    MapToByteLinear(channels[k], tool.cols, tool.channel_gain[k], tool.channel_offset[k],
                    tool.channel_plane[k] + at);
  }
}

// Makes result a header over a working plane, then resizes it to the region's size when the tool
// works at a reduced scale; it owns its memory then.
void DeliverPlane(const UnCalibrationTool& tool, void* plane, int type, cv::Mat& result) {
  result = PlaneHeader(tool, plane, type);
  if (tool.downscale_on != 1) return;
  const cv::Size size(static_cast<int>(tool.roi_width), static_cast<int>(tool.roi_height));
  OnThisThread([&] { cv::resize(result, result, size, 0, 0, cv::INTER_LINEAR); });
}

void DeliverBytes(const UnCalibrationTool& tool, const ResultImages& results) {
  const auto deliver = [&](int output, uint8_t* plane, cv::Mat* result) {
    if (IsOn(tool, output)) DeliverPlane(tool, plane, CV_8UC1, *result);
  };
  deliver(VELOSTRIX_OUTPUT_FACTOR, tool.factor_plane, results.factor);
  for (int k = 0; k < 3; ++k) {
    deliver(VELOSTRIX_OUTPUT_CHANNEL0 + k, tool.channel_plane[k], results.channel[k]);
  }
  if (IsOn(tool, VELOSTRIX_OUTPUT_NORMAL)) {
    const std::vector<cv::Mat> channels = {*results.channel[0], *results.channel[1],
                                           *results.channel[2]};
    cv::merge(channels, *results.normal);
  }
  deliver(VELOSTRIX_OUTPUT_CURVATURE, tool.curvature_plane, results.curvature);
  deliver(VELOSTRIX_OUTPUT_MAGNITUDE, tool.magnitude_plane, results.magnitude);
}

void DeliverHeight(UnCalibrationTool& tool, const ResultImages& results) {
  IntegrateHeight(tool, tool.slope_p, tool.slope_q, &tool.height_map);
  Range range;
  for (int64_t i = 0; i < tool.rows; ++i) {
    MinMaxOfMap(tool.height_map + i * tool.row_step, tool.cols, range);
  }
  for (int64_t i = 0; i < tool.rows; ++i) {
    const int64_t at = i * tool.row_step;
    MapToWordNormalized(tool.height_map + at, tool.cols, tool.row_step, range,
                        tool.height_plane + at);
  }
  DeliverPlane(tool, tool.height_plane, CV_16UC1, *results.height);
}

// Milliseconds that the stages took.
struct StageTimes {
  double light = 0;         // looking at the images as a whole
  double factor_range = 0;  // and mirroring the factor map
  double maps = 0;
  double map_images = 0;
  double derivative_images = 0;
};

// The rows of all images but the height.
void MakeRows(UnCalibrationTool& tool, RunKind kind, const LightStage& light,
              const Range& factor_range, StageTimes& times) {
  constexpr int64_t kRowsToDerive = 3;
  const bool keeps_slopes = IsOn(tool, VELOSTRIX_OUTPUT_HEIGHT);
  const int64_t kept = keeps_slopes ? tool.rows : std::min(tool.rows, kRowsToDerive);
  const SlopeRows slopes = {{tool.slope_p, tool.row_step, kept},
                            {tool.slope_q, tool.row_step, kept},
                            tool.rows,
                            tool.cols};
  std::unique_ptr<DerivativeImages> derivatives;
  if (MakesDerivativeImages(tool)) {
    derivatives = IsPartial(kind) ? PartialDerivativeImages(tool, slopes)
                                  : FullFrameDerivativeImages(tool, slopes);
  }

  Stopwatch stopwatch;
  for (int64_t i = 0; i < tool.rows; ++i) {
    const MapRow maps = {tool.factor_map, slopes.p.Row(i), slopes.q.Row(i), tool.gated_factor_map};
    light.WriteRow(i, maps);
    times.maps += stopwatch.Lap();
    MakeMapImageRows(tool, i, maps, factor_range);
    times.map_images += stopwatch.Lap();
    if (derivatives == nullptr) continue;
    if (i > 0) derivatives->MakeRow(i - 1);
    if (i == tool.rows - 1) derivatives->MakeRow(i);
    times.derivative_images += stopwatch.Lap();
  }
  if (derivatives != nullptr) derivatives->Smooth();
  times.derivative_images += stopwatch.Lap();
}

// The full-frame runs keep the time of their light stage, also when it was refused.
void StoreLightTime(UnCalibrationTool& tool, RunKind kind, double light_stage_ms) {
  if (IsPartial(kind)) return;
  tool.time_light_stage_ms = light_stage_ms;
  tool.tick_mark = static_cast<double>(cv::getTickCount());
}

void StoreTimes(UnCalibrationTool& tool, RunKind kind, const StageTimes& times) {
  if (IsPartial(kind)) {
    tool.time_maps_ms = times.light + times.maps;
    tool.time_flip_ms = times.factor_range;
    return;
  }
  const double maps = times.factor_range + times.maps;
  if (kind == RunKind::kUncalibrated) tool.time_maps_ms = maps;
  tool.time_map_images_ms = times.map_images;
  tool.time_derivative_images_ms = times.derivative_images;
  StoreLightTime(tool, kind, times.light + maps);
}

}  // namespace

std::unique_ptr<LightStage> RunLightStage(UnCalibrationTool& tool, RunKind kind, int64_t band) {
  switch (kind) {
    case RunKind::kUncalibrated:
      return FactorizeIntensities(tool);
    case RunKind::kCalibrated:
      return SolveCalibratedLights(tool);
    case RunKind::kPartRows:
      return FactorizeIntensitiesPartRows(tool, band);
    case RunKind::kPartCols:
    default:
      return FactorizeIntensitiesPartCols(tool, band);
  }
}

int32_t Run(UnCalibrationTool& tool, const ResultImages& results, RunKind kind,
            int32_t wanted_band) {
  const int64_t band = std::max<int64_t>(wanted_band, kSmallestBand);
  StageTimes times;
  Stopwatch stopwatch;
  const bool refused = IsRefused(tool, results, kind, band);
  const std::unique_ptr<LightStage> light = refused ? nullptr : RunLightStage(tool, kind, band);
  times.light = stopwatch.Lap();
  if (light == nullptr) {
    StoreLightTime(tool, kind, times.light);
    return 0;
  }
  Range factor_range;
  if (IsOn(tool, VELOSTRIX_OUTPUT_FACTOR)) {
    factor_range = light->FactorRange(tool.factor_map);
  }
  times.factor_range = stopwatch.Lap();
  MakeRows(tool, kind, *light, factor_range, times);
  StoreTimes(tool, kind, times);

  DeliverBytes(tool, results);
  if (IsOn(tool, VELOSTRIX_OUTPUT_HEIGHT)) DeliverHeight(tool, results);
  tool.images_set = 0;
  return 1;
}

}  // namespace velostrix
