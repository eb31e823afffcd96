// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
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
  // How much of the images (root mean square) no normals under the lamps of the calibrated run's
  // ring explain, and how much none under any lamps do. Over pixels that are neither saturated nor
  // black; empty when it cannot be told: with 3 images, lamps anywhere explain all.
  struct Unexplained {
    double by_ring;
    double by_any;
  };
  std::optional<Unexplained> unexplained;
  std::vector<std::string> warnings;  // in plain words
};

// The images are CV_8UC1 of one size; the names are used in warnings. Whether the lamps are those
// of the ring is measured when asked for.
Diagnostics Diagnose(const std::vector<cv::Mat>& images, const std::vector<std::string>& names,
                     bool with_ring);

}  // namespace velostrix::cli
