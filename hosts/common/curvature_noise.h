// The share of camera noise in the curvature image.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix {

// The share (0 to 1) of noise in the variance of the curvature, before any blur. The images are
// CV_8UC1 of one size; the slopes are the second and third of their combinations by the columns of
// weights (images x 3) over the first. usable: not 0 for pixels that count. Negative: not measured.
double NoiseOfCurvature(const std::vector<cv::Mat>& images, const cv::Mat1d& weights,
                        const cv::Mat1b& usable);

// The share that remains after a blur radius.
double NoiseAfterBlur(double share, int blur_radius);

// The blur radius that leaves at most a quarter of the share.
int CalmingRadius(double share);

}  // namespace velostrix
