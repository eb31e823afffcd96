// Whole runs from the plain stages: from a stack of images to result images.
#pragma once

#include <cstdint>
#include <opencv2/core/mat.hpp>
#include <vector>

#include "reference/reference_stages.h"
#include "velostrix/records.h"

namespace velostrix::reference {

enum class LightStage { kUncalibrated, kCalibrated, kPartRows, kPartCols };

struct RunRequest {
  LightStage light_stage = LightStage::kUncalibrated;
  Frame frame;
  UnCalibrationParam param = {};  // switches, gains, offsets, modes; its geometry is not read
  bool resizes_back = false;
  cv::Size result_size;  // when it resizes back
  int64_t band = 0;      // of the partial runs
};

// What runs need besides the images, allocated once for many runs over frames of one size.
struct Workspace {
  explicit Workspace(const Frame& frame);

  std::vector<float> factor_map, slope_p, slope_q, gated_factor_map;
  std::vector<float> deriv_p, deriv_q, blurred_deriv_p, blurred_deriv_q, height_map;
  std::vector<uint8_t> factor_plane, channel_plane[3], derivative_half[2];
  std::vector<uint8_t> curvature_plane, magnitude_plane;
  std::vector<uint16_t> height_plane;
  Eigen::MatrixXf intensity_matrix;
};

// Results that are not resized are headers over the workspace.
struct RunResults {
  cv::Mat factor, curvature, magnitude, channel[3], normal, height;
};

void Run(const RunRequest& request, Workspace& workspace, RunResults& results);

}  // namespace velostrix::reference
