// How much of the curvature image is noise of the camera.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace velostrix {

// The share (0 to 1) of noise in the variance of the curvature, before any blur. The images are
// CV_8UC1 of one size; the slopes are the second and third of their combinations by the columns of
// weights (images x 3) over the first. usable: pixels that count are not 0. Negative: not told.
double NoiseOfCurvature(const std::vector<cv::Mat>& images, const cv::Mat1d& weights,
                        const cv::Mat1b& usable);

// What a blur radius leaves of such a share.
double NoiseAfterBlur(double share, int blur_radius);

// The blur radius that leaves a quarter of it or less.
int CalmingRadius(double share);

}  // namespace velostrix
