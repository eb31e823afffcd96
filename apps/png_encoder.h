// Images as PNG files.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace velostrix::cli {

// A stronger one makes relief and camera images 2 % smaller and takes three times as long.
constexpr int kUsualCompression = 1;
constexpr int kMostCompression = 9;

// The PNG file of a CV_8UC1, CV_16UC1 or CV_8UC3 image (blue, green, red). compression: 0 (none) to
// kMostCompression.
std::vector<uint8_t> EncodePng(const cv::Mat& image, int compression);

}  // namespace velostrix::cli
