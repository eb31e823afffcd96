// The four runs: from the images of a tool to its results.
#pragma once

#include <cstdint>
#include <memory>
#include <opencv2/core/mat.hpp>

struct UnCalibrationTool;

namespace velostrix {

class LightStage;

enum class RunKind {
  kUncalibrated,  // unknown lamps, the whole frame at once
  kCalibrated,    // the fixed lamp ring
  kPartRows,      // unknown lamps, bands of rows
  kPartCols       // unknown lamps, strips of columns
};

// The images that a run writes; those that are switched off may be null.
struct ResultImages {
  cv::Mat* factor;
  cv::Mat* curvature;
  cv::Mat* magnitude;
  cv::Mat* channel[3];
  cv::Mat* normal;
  cv::Mat* height;
};

// Returns 1; 0, nothing changed, when refused. band, of the partial runs: rows or columns of a
// piece; below 10 counts as 10. Out of memory: std::bad_alloc or cv::Exception.
int32_t Run(UnCalibrationTool& tool, const ResultImages& results, RunKind kind, int32_t band = 0);

// The light stage that a run of the kind begins with; null where the lamps cannot be solved for.
std::unique_ptr<LightStage> RunLightStage(UnCalibrationTool& tool, RunKind kind, int64_t band);

}  // namespace velostrix
