// Images as PNG files.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace velostrix::cli {

// Of relief and camera images a stronger one makes files 2 % smaller and takes three times as long.
constexpr int kUsualCompression = 1;
constexpr int kMostCompression = 9;

// The file of a CV_8UC1, CV_16UC1 or CV_8UC3 image (blue, green, red). compression: 0, as it is, to
// kMostCompression.
std::vector<uint8_t> EncodePng(const cv::Mat& image, int compression);

}  // namespace velostrix::cli
