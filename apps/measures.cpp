// Numbers measured in the results, for limits.
#include "apps/measures.h"

#include <opencv2/core.hpp>

namespace velostrix::cli {
namespace {

bool IsKept(const cv::Mat& kept, int i, int j) {
  return kept.empty() || kept.at<uint8_t>(i, j) != 0;
}

double CurvatureShare(const cv::Mat& image, int offset, int level, const cv::Mat& kept) {
  int64_t beyond = 0;
  int64_t all = 0;
  for (int i = 0; i < image.rows; ++i) {
    const auto* const row = image.ptr<uint8_t>(i);
    for (int j = 0; j < image.cols; ++j) {
      if (!IsKept(kept, i, j)) continue;
      beyond += std::abs(row[j] - offset) > level ? 1 : 0;
      ++all;
    }
  }
  return static_cast<double>(beyond) / static_cast<double>(all);
}

struct Sums {
  double differences_by_slopes = 0.0;
  double differences_squared = 0.0;

  void Add(double difference, uint8_t level, const OutputScaling& slope) {
    const bool is_outside = level == 0 || level == 255;
    if (is_outside) return;
    differences_by_slopes += difference * (level - slope.offset) / slope.gain;
    differences_squared += difference * difference;
  }
};

}  // namespace

std::optional<double> HeightScale(const Results& results, const Parameters& parameters,
                                  const cv::Mat& kept) {
  const cv::Mat& height = results[Output::kHeight];
  const OutputScaling& p = parameters.channel[0];  // z[i][j + 1] - z[i][j]
  const OutputScaling& q = parameters.channel[1];  // z[i][j] - z[i + 1][j]
  Sums sums;
  for (int i = 0; i + 1 < height.rows; ++i) {
    const auto* const here = height.ptr<uint16_t>(i);
    const auto* const below = height.ptr<uint16_t>(i + 1);
    const auto* const p_row = results[Output::kChannel0].ptr<uint8_t>(i);
    const auto* const q_row = results[Output::kChannel1].ptr<uint8_t>(i);
    for (int j = 0; j + 1 < height.cols; ++j) {
      if (!IsKept(kept, i, j)) continue;
      if (IsKept(kept, i, j + 1)) sums.Add(here[j + 1] - here[j], p_row[j], p);
      if (IsKept(kept, i + 1, j)) sums.Add(here[j] - below[j], q_row[j], q);
    }
  }
  const double scale = sums.differences_by_slopes / sums.differences_squared;
  if (!std::isfinite(scale)) return std::nullopt;
  return scale;
}

Measures MeasureResults(const Results& results, const Parameters& parameters, int level,
                        const cv::Mat& kept) {
  Measures measures;
  if (parameters.outputs.Contains(Output::kCurvature)) {
    measures.curvature_share =
        CurvatureShare(results[Output::kCurvature], parameters.curvature.offset, level, kept);
  }
  const OutputSet made = WithChannels(parameters.outputs);
  if (made.Contains(Output::kHeight) && made.Contains(Output::kChannel0) &&
      made.Contains(Output::kChannel1)) {
    double least = 0.0;
    double most = 0.0;
    cv::minMaxLoc(results[Output::kHeight], &least, &most, nullptr, nullptr, kept);
    const std::optional<double> scale = HeightScale(results, parameters, kept);
    if (scale) measures.height_range = (most - least) * *scale;
  }
  return measures;
}

}  // namespace velostrix::cli
