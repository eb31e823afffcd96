// The ground truth that `velostrix render` writes, and the results that a run should give.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/result_folder.h"

namespace velostrix::cli {

struct GroundTruth {
  cv::Mat height;   // CV_32FC1, pixels
  cv::Mat normals;  // CV_32FC3, in the axes of scene::Scene
  cv::Mat albedo;   // CV_32FC1
  std::vector<std::string> files;
};

// Reads the folder of a rendered scene, or its folder truth; nothing when it is neither. Throws
// Failure, which names the file that cannot be used.
std::optional<GroundTruth> ReadGroundTruth(const std::string& folder);

// The result that a run should give.
struct ExpectedResult {
  Output output;
  cv::Mat levels;    // CV_32FC1, as Levels gives them
  cv::Rect inside;   // without the border of the height
  double explained;  // share of the result's variance (R2) that the truth explains
  bool is_inverted;  // the result falls where the truth rises
};

// For the results that follow from the truth: factor, channel0, channel1 and height. Photometric
// stereo does not determine scale and offset of slopes and brightness, nor a plane in the height
// (Belhumeur, Kriegman and Yuille 1999, "The bas-relief ambiguity"): these are fitted to the result
// by least squares. Throws Failure when the truth is not as large as the images were.
std::vector<ExpectedResult> ExpectedResults(const GroundTruth& truth, const ResultFolder& made);

}  // namespace velostrix::cli
