// Images from PNG files.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix::cli {

// The image of a file as cameras and programs write them: grey or colour of 8 or 16 bits a sample,
// not interlaced; CV_8UC1, CV_16UC1, CV_8UC3 or CV_16UC3 (blue, green, red). Empty for other files.
cv::Mat DecodePng(const std::vector<char>& file);

}  // namespace velostrix::cli
