// The differences between two images of one size.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix::cli {

// The grey levels as CV_32F; 257 levels of 16-bit images count as one.
cv::Mat Levels(const cv::Mat& image);

struct Place {
  cv::Point pixel;
  double difference = 0.0;
};

// In grey levels. The difference of a pixel is that of its most different channel.
struct Differences {
  double largest = 0.0;
  double mean = 0.0;
  double rms = 0.0;
  double beyond_share = 0.0;  // of the pixels: those that differ by more than the tolerance
  std::vector<Place> worst;   // the largest difference first, each away from those before it
  cv::Mat image;              // CV_32FC1: of each pixel, 0 outside the part that is compared
};

// Compares levels without NaN inside a rectangle that is not empty.
Differences Compare(const cv::Mat& a, const cv::Mat& b, const cv::Rect& inside, double tolerance);

}  // namespace velostrix::cli
