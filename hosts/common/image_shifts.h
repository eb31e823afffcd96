// How far images of one scene are shifted against each other.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix {

// The distance in pixels of each image from the place of most of them; -1 where it cannot be told,
// as for images without structure. The images are CV_8UC1 of one size. mask: as large, pixels to
// leave out are 0; or empty.
std::vector<double> ImageShifts(const std::vector<cv::Mat>& images, const cv::Mat& mask);

}  // namespace velostrix
