// Raw frames of colour sensors, whose pixels lie under red, green and blue filters.
#include "apps/bayer.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

namespace velostrix::cli {
namespace {

// The sum of the row's pixels, every other one negative.
template <typename T>
double AlternatingSum(const T* row, int cols) {
  int64_t sum = 0;
  for (int j = 0; j + 1 < cols; j += 2) sum += int64_t{row[j]} - row[j + 1];
  return static_cast<double>(sum);
}

}  // namespace

// Green pixels form a checkerboard, and hardly any light is as bright through green filters as
// through red and blue ones on average. The strength of the checkerboard is at most 0.2 % of the
// mean in ordinary pictures and 5 to 40 % in raw frames.
bool IsBayerFrame(const cv::Mat& image) {
  constexpr double kCheckerShare = 0.02;
  double checker = 0.0;
  const int rows = image.rows - image.rows % 2;
  for (int i = 0; i < rows; ++i) {
    const double sum = image.depth() == CV_8U ? AlternatingSum(image.ptr<uint8_t>(i), image.cols)
                                              : AlternatingSum(image.ptr<uint16_t>(i), image.cols);
    checker += i % 2 == 0 ? sum : -sum;
  }
  const double total = cv::sum(image)[0];
  return std::abs(checker) > kCheckerShare * total;
}

cv::Mat Demosaic(const cv::Mat& frame, const std::string& pattern, bool in_colour) {
  // OpenCV names the patterns by the second row.
  constexpr std::array<int, 4> kToGrey = {cv::COLOR_BayerBG2GRAY, cv::COLOR_BayerGB2GRAY,
                                          cv::COLOR_BayerGR2GRAY, cv::COLOR_BayerRG2GRAY};
  constexpr std::array<int, 4> kToColour = {cv::COLOR_BayerBG2BGR, cv::COLOR_BayerGB2BGR,
                                            cv::COLOR_BayerGR2BGR, cv::COLOR_BayerRG2BGR};
  const auto* const found = std::find(kBayerPatterns.begin(), kBayerPatterns.end(), pattern);
  const auto at = static_cast<size_t>(found - kBayerPatterns.begin());
  cv::Mat image;
  cv::cvtColor(frame, image, in_colour ? kToColour.at(at) : kToGrey.at(at));
  return image;
}

}  // namespace velostrix::cli
