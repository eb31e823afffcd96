// Brightness equalisation, one pixel at a time.
#include <opencv2/core.hpp>

#include "reference/reference_stages.h"

namespace velostrix::reference {

cv::Mat EqualiseBrightness(std::vector<double>& levels, const cv::Mat& source,
                           double reference_level) {
  const auto cols = static_cast<size_t>(source.cols);
  const bool takes_reference =
      reference_level >= 0.0 && reference_level <= 255.0 && levels.size() == cols;

  cv::Mat means;
  cv::reduce(source, means, 0, cv::REDUCE_AVG, CV_8U);
  levels.assign(cols, 0.0);
  double sum = 0.0;
  for (int j = 0; j < source.cols; ++j) {
    const double level = means.at<uint8_t>(0, j);
    levels[static_cast<size_t>(j)] = level;
    sum += level;
  }
  const double target = takes_reference ? reference_level : sum / static_cast<double>(cols);
  std::vector<int> offsets;
  offsets.reserve(cols);
  for (const double level : levels) offsets.push_back(static_cast<int>(target - level));

  cv::Mat equalised(source.size(), CV_8UC1);
  for (int i = 0; i < source.rows; ++i) {
    const auto* from = source.ptr<uint8_t>(i);
    auto* to = equalised.ptr<uint8_t>(i);
    for (size_t j = 0; j < cols; ++j) to[j] = cv::saturate_cast<uint8_t>(from[j] + offsets[j]);
  }
  return equalised;
}

}  // namespace velostrix::reference
