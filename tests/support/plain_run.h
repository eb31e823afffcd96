// What a tool must make of images and runs, by the plain implementation.
#pragma once

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "interface/host_tool.h"
#include "reference/reference_runs.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {

inline reference::Frame FrameOf(const UnCalibrationTool& tool) {
  const auto images = static_cast<int>(tool.image_count);
  return {tool.rows, tool.cols, tool.row_step, tool.plane_size, images, tool.image_stack};
}

// A header over a plane of the tool's geometry.
inline cv::Mat Header(const UnCalibrationTool& tool, void* plane, int type) {
  return {static_cast<int>(tool.rows), static_cast<int>(tool.cols), type, plane,
          static_cast<size_t>(tool.row_step) * CV_ELEM_SIZE(type)};
}

inline void ResizeResult(const UnCalibrationTool& tool, cv::Mat& image) {
  const cv::Size size(static_cast<int>(tool.roi_width), static_cast<int>(tool.roi_height));
  if (tool.downscale_on == 1) cv::resize(image, image, size, 0, 0, cv::INTER_LINEAR);
}

// The plane that an image becomes which the tool takes.
inline cv::Mat PlainPlane(const UnCalibrationTool& tool, cv::Mat image) {
  const cv::Size size(static_cast<int>(tool.cols), static_cast<int>(tool.rows));
  const RegionOfInterest& roi = tool.roi;
  if (tool.roi_set != 0) image = image(cv::Rect(roi.x, roi.y, roi.width, roi.height)).clone();
  if (tool.downscale_on == 1) cv::resize(image, image, size, 0, 0, cv::INTER_LINEAR);
  std::vector<double> levels;
  if (tool.equalise_on != 0) image = reference::EqualiseBrightness(levels, image, -1.0);
  // What is no frame counts as a run of bytes.
  const bool is_frame = image.size() == size && image.type() == CV_8UC1;
  const size_t step = is_frame ? image.step[0] : static_cast<size_t>(tool.cols);
  return cv::Mat(size, CV_8UC1, image.data, step).clone();
}

struct PlainRun {
  // On the images that the tool holds, by the parameters that it was given.
  PlainRun(const UnCalibrationTool& t, const UnCalibrationParam& param, RunKind kind, int32_t band)
      : workspace(FrameOf(t)) {
    reference::RunRequest request;
    request.light_stage = static_cast<reference::LightStage>(kind);  // in the same order
    request.frame = FrameOf(t);
    request.resizes_back = t.downscale_on == 1;
    request.result_size = {static_cast<int>(t.roi_width), static_cast<int>(t.roi_height)};
    request.band = std::max(band, 10);
    request.param = param;
    reference::RunResults r;
    reference::Run(request, workspace, r);
    results = {r.factor,     r.curvature,  r.magnitude, r.channel[0],
               r.channel[1], r.channel[2], r.normal,    r.height};
  }

  reference::Workspace workspace;
  Results results;  // some over the workspace
};

}  // namespace velostrix
