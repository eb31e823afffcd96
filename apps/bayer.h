// Raw frames of colour sensors, whose pixels lie under red, green and blue filters.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <string>

namespace velostrix::cli {

// The filters of the first two rows, from the first pixel on.
inline constexpr std::array<const char*, 4> kBayerPatterns = {"rggb", "grbg", "gbrg", "bggr"};

// Whether an image of one channel is a raw frame.
bool IsBayerFrame(const cv::Mat& image);

// A frame of one channel in grey, or in colour (blue, green, red), of its depth.
cv::Mat Demosaic(const cv::Mat& frame, const std::string& pattern, bool in_colour);

}  // namespace velostrix::cli
