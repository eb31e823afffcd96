// What a run should deliver, by the plain implementation.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <vector>

#include "interface/host_tool.h"
#include "reference/reference_runs.h"

namespace velostrix {

struct RunSetup {
  RunKind kind = RunKind::kUncalibrated;
  UnCalibrationParam param = {};
  std::optional<cv::Rect> region;  // above 10 pixels each way after scaling
  int32_t band = 10;
};

inline Results ActualResults(const RunSetup& setup, const std::vector<cv::Mat>& images) {
  HostTool tool(setup.param);
  if (setup.region) {
    EXPECT_TRUE(tool.SetRegion(*setup.region));
  }
  tool.InitialImage();
  return tool.Reconstruct(setup.kind, images, setup.band);
}

inline Results ExpectedResults(const RunSetup& setup, const std::vector<cv::Mat>& images) {
  const UnCalibrationParam& param = setup.param;
  const cv::Rect region = setup.region.value_or(cv::Rect(0, 0, param.width, param.height));
  const bool scales = param.scale < 0.99;
  const double scale = scales ? param.scale : 1.0;

  reference::RunRequest request;
  reference::Frame& frame = request.frame;
  frame.rows = static_cast<int64_t>(region.height * scale);
  frame.cols = static_cast<int64_t>(region.width * scale);
  frame.row_step = setup.region || scales ? frame.cols : param.row_step;
  frame.plane_size = frame.rows * frame.row_step;
  frame.image_count = param.image_count;
  std::vector<uint8_t> stack(images.size() * static_cast<size_t>(frame.plane_size));
  frame.stack = stack.data();
  const cv::Size size(static_cast<int>(frame.cols), static_cast<int>(frame.rows));
  for (size_t k = 0; k < images.size(); ++k) {
    cv::Mat working = images[k](region).clone();
    if (scales) cv::resize(working, working, size, 0, 0, cv::INTER_LINEAR);
    std::vector<double> levels;
    if (param.equalise_on != 0) working = reference::EqualiseBrightness(levels, working, -1.0);
    cv::Mat plane(size, CV_8UC1, &stack[k * static_cast<size_t>(frame.plane_size)],
                  static_cast<size_t>(frame.row_step));
    working.copyTo(plane);
  }

  constexpr reference::LightStage kStages[] = {
      reference::LightStage::kUncalibrated, reference::LightStage::kCalibrated,
      reference::LightStage::kPartRows, reference::LightStage::kPartCols};
  request.light_stage = kStages[static_cast<size_t>(setup.kind)];
  request.param = param;
  request.resizes_back = scales;
  request.result_size = region.size();
  request.band = std::max(setup.band, 10);
  reference::Workspace workspace(frame);
  reference::RunResults r;
  reference::Run(request, workspace, r);
  Results results = {r.factor,     r.curvature,  r.magnitude, r.channel[0],
                     r.channel[1], r.channel[2], r.normal,    r.height};
  for (cv::Mat& image : results) image = image.clone();
  return results;
}

}  // namespace velostrix
