// The shifts between images of one scene.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix {

// How many pixels each image is shifted against most of them; -1 if it cannot be measured, as for
// images without structure. images: CV_8UC1, of one size. mask: as large, 0 for pixels to leave
// out; or empty.
std::vector<double> ImageShifts(const std::vector<cv::Mat>& images, const cv::Mat& mask);

}  // namespace velostrix
