// The partial uncalibrated runs: one driver, the light stage its parameter.
#include "pipeline/partial_run.h"

#include <algorithm>

#include "maps/byte_maps.h"
#include "maps/derivative_maps.h"
#include "orientation/factorize_parts.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Pieces narrower than this determine no vectors.
constexpr int32_t kSmallestBand = 10;

// Unlike in the full-frame runs the finished bytes are smoothed, not the float map; deliberate.
void DeliverSmoothed(const UnCalibrationTool& tool, uint8_t* plane, cv::Mat& result) {
  result = PlaneHeader(tool, plane, CV_8UC1);
  if (tool.blur_radius >= 1) Blur(tool, result, result);
  ResizeBack(tool, result);
}

void DeliverDerivativeImages(UnCalibrationTool& tool, const ResultImages& results) {
  const bool curvature = IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE);
  const bool magnitude = IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE);
  if (!curvature && !magnitude) return;

  // A row at a time, which stays in the cache: the first row of the derivative map is its place.
  float* divergence = tool.deriv_p;
  if (!IsDifferentiable(tool)) std::fill_n(divergence, tool.cols, 0.0F);
  const FrameExtent one_row(1, tool.cols, tool.row_step);
  for (int64_t i = 0; i < tool.rows; ++i) {
    SlopeDivergence(tool, tool.slope_p, tool.slope_q, divergence, {i, i + 1});
    const int64_t at = i * tool.row_step;
    if (curvature) {
      MapToByteLinear(one_row, divergence, tool.curvature_plane + at, tool.curvature.gain,
                      tool.curvature.offset);
    }
    if (magnitude) {
      MapToByteAbsLinear(one_row, divergence, tool.magnitude_plane + at, tool.magnitude.gain,
                         tool.magnitude.offset);
    }
  }
  if (curvature) DeliverSmoothed(tool, tool.curvature_plane, *results.curvature);
  if (magnitude) DeliverSmoothed(tool, tool.magnitude_plane, *results.magnitude);
}

template <typename LightStage>
int32_t RunPartial(UnCalibrationTool& tool, const ResultImages& results, int32_t band,
                   LightStage light_stage) {
  if (!CanDeliver(tool, results)) return 0;
  if (light_stage(tool, tool.factor_map, tool.slope_p, tool.slope_q, tool.gated_factor_map,
                  std::max(band, kSmallestBand)) == 0) {
    return 0;
  }
  if (!DeliverMapImages(tool, results)) return 0;
  DeliverDerivativeImages(tool, results);
  if (!DeliverHeight(tool, results)) return 0;
  tool.images_set = 0;
  return 1;
}

}  // namespace

int32_t RunPartRows(UnCalibrationTool& tool, const ResultImages& results, int32_t band) {
  return RunPartial(tool, results, band, FactorizeIntensitiesPartRows);
}

int32_t RunPartCols(UnCalibrationTool& tool, const ResultImages& results, int32_t band) {
  return RunPartial(tool, results, band, FactorizeIntensitiesPartCols);
}

}  // namespace velostrix
