// Brightness equalisation: every column of an image is shifted to a common mean level.
#include "tool/equalisation.h"

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <opencv2/core.hpp>

#include "base/vectors.h"

namespace velostrix {

bool ColumnLevels(const cv::Mat& source, double& mean_level, std::vector<double>& column_levels) {
  mean_level = 0;
  column_levels.assign(static_cast<size_t>(std::max(source.cols, 0)), 0.0);
  if (column_levels.empty()) return false;

  cv::Mat level_row;
  cv::reduce(source, level_row, 0, cv::REDUCE_AVG, CV_8U);
  const uint8_t* levels = level_row.ptr<uint8_t>();
  std::copy(levels, levels + column_levels.size(), column_levels.begin());
  const double sum = std::accumulate(column_levels.begin(), column_levels.end(), 0.0);
  mean_level = sum / static_cast<double>(column_levels.size());
  return true;
}

bool EqualiseBrightness(std::vector<double>& column_levels, const cv::Mat& source,
                        cv::Mat& destination, double reference_level) {
  if (source.cols <= 0 || source.rows <= 0 || source.channels() > 1) return false;
  if (destination.size() != source.size() || destination.type() != source.type()) {
    destination = cv::Mat(source.size(), CV_8UC1);
  }
  const auto cols = static_cast<size_t>(source.cols);

  // A reference level counts only when the image before had as many columns; deliberate.
  const bool own_mean =
      reference_level < 0.0 || reference_level > 255.0 || column_levels.size() != cols;
  double mean_level = 0;
  ColumnLevels(source, mean_level, column_levels);
  const double target = own_mean ? mean_level : reference_level;

  std::vector<int16_t> offsets(cols);
  std::transform(column_levels.begin(), column_levels.end(), offsets.begin(),
                 [&](double level) { return static_cast<int16_t>(TruncateToInt(target - level)); });
  for (int row = 0; row < source.rows; ++row) {
    const uint8_t* in = source.ptr<uint8_t>(row);
    uint8_t* out = destination.ptr<uint8_t>(row);
    for (size_t j = 0; j < cols; ++j) {
      // Sixteen bits hold the sum, so that the compiler need not widen further.
      const auto level = static_cast<int16_t>(in[j] + offsets[j]);
      out[j] = static_cast<uint8_t>(std::clamp<int16_t>(level, 0, 255));
    }
  }
  return true;
}

}  // namespace velostrix
