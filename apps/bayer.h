// Raw frames of colour sensors, whose pixels lie under red, green and blue filters.
#pragma once

#include <array>
#include <opencv2/core.hpp>
#include <string>

namespace velostrix::cli {

// The filters of the first two rows, from the first pixel on.
inline constexpr std::array<const char*, 4> kBayerPatterns = {"rggb", "grbg", "gbrg", "bggr"};

// Whether a single-channel image is a raw frame.
bool IsBayerFrame(const cv::Mat& image);

// Converts a raw frame to grey, or to colour (blue, green, red), of the same depth.
cv::Mat Demosaic(const cv::Mat& frame, const std::string& pattern, bool in_colour);

}  // namespace velostrix::cli
