// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

struct Exposure {
  double saturated_share;  // of the pixels, at 255
  double black_share;      // of the pixels, at 0
  double mean_level;       // grey levels
};

struct Diagnostics {
  std::vector<Exposure> exposures;  // one for each image
  // Singular values of the images x pixels matrix, descending, the first scaled to 1. The second
  // and third say how much the lamps differ in one and in two directions.
  std::vector<double> singular_values;
  std::vector<std::string> warnings;  // in plain words
};

// The images are CV_8UC1 of one size; the names are used in warnings.
Diagnostics Diagnose(const std::vector<cv::Mat>& images, const std::vector<std::string>& names);

}  // namespace velostrix::cli
