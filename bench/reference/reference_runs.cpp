// Whole runs from the plain stages: order, switches, blur, merge, resize back.
#include "reference/reference_runs.h"

#include <cmath>
#include <opencv2/imgproc.hpp>

namespace velostrix::reference {
namespace {

cv::Mat Header(const Frame& frame, void* plane, int type) {
  return cv::Mat(static_cast<int>(frame.rows), static_cast<int>(frame.cols), type, plane,
                 static_cast<size_t>(frame.row_step) * CV_ELEM_SIZE(type));
}

void ResizeBack(const RunRequest& request, cv::Mat& image) {
  if (request.resizes_back) cv::resize(image, image, request.result_size, 0, 0, cv::INTER_LINEAR);
}

void Blur(int32_t radius, const cv::Mat& source, cv::Mat& destination) {
  const double t = static_cast<double>(2 * radius) / 3.0;
  const double sigma = 0.5 * std::sqrt((t + 2.0) * t);
  cv::GaussianBlur(source, destination, cv::Size(2 * radius + 1, 2 * radius + 1), sigma, sigma,
                   cv::BORDER_DEFAULT);
}

void RunLightStage(const RunRequest& request, Workspace& w) {
  const WorkingMaps maps{w.factor_map.data(), w.slope_p.data(), w.slope_q.data(),
                         w.gated_factor_map.data()};
  switch (request.light_stage) {
    case LightStage::kUncalibrated:
      return FactorizeIntensities(request.frame, maps, w.intensity_matrix);
    case LightStage::kCalibrated:
      return SolveCalibratedLights(request.frame, maps);
    case LightStage::kPartRows:
      return FactorizeIntensitiesPartRows(request.frame, maps, request.band);
    case LightStage::kPartCols:
      return FactorizeIntensitiesPartCols(request.frame, maps, request.band);
  }
}

void MakeMapImages(const RunRequest& request, Workspace& w, RunResults& results) {
  const Frame& frame = request.frame;
  const UnCalibrationParam& param = request.param;
  if (param.output_enable[VELOSTRIX_OUTPUT_FACTOR]) {
    MapToByteNormalized(frame, w.factor_map.data(), w.factor_plane.data(), param.factor_gain);
    results.factor = Header(frame, w.factor_plane.data(), CV_8UC1);
    ResizeBack(request, results.factor);
  }
  const float* maps[3] = {w.slope_p.data(), w.slope_q.data(), w.gated_factor_map.data()};
  const bool merges = param.output_enable[VELOSTRIX_OUTPUT_NORMAL] != 0;
  for (int k = 0; k < 3; ++k) {
    if (!merges && !param.output_enable[VELOSTRIX_OUTPUT_CHANNEL0 + k]) continue;
    MapToByteLinear(frame, maps[k], w.channel_plane[k].data(), param.channel[k].gain,
                    param.channel[k].offset);
    results.channel[k] = Header(frame, w.channel_plane[k].data(), CV_8UC1);
    ResizeBack(request, results.channel[k]);
  }
  if (merges) cv::merge(results.channel, 3, results.normal);
}

// The lowest value has no opposite and stays.
int32_t Negated(int32_t offset) { return static_cast<int32_t>(-int64_t{offset}); }

// Two derivative maps, blurred before they become bytes.
void MakeFullFrameDerivatives(const RunRequest& request, Workspace& w, RunResults& results) {
  const Frame& frame = request.frame;
  const UnCalibrationParam& param = request.param;
  DeriveSlopeMaps(frame, w.slope_p.data(), w.slope_q.data(), param.difference_mode == 1,
                  w.deriv_p.data(), w.deriv_q.data());
  const float* x = w.deriv_p.data();
  const float* y = w.deriv_q.data();
  if (param.blur_radius >= 1) {
    cv::Mat blurred_p = Header(frame, w.blurred_deriv_p.data(), CV_32FC1);
    cv::Mat blurred_q = Header(frame, w.blurred_deriv_q.data(), CV_32FC1);
    Blur(param.blur_radius, Header(frame, w.deriv_p.data(), CV_32FC1), blurred_p);
    Blur(param.blur_radius, Header(frame, w.deriv_q.data(), CV_32FC1), blurred_q);
    x = w.blurred_deriv_p.data();
    y = w.blurred_deriv_q.data();
  }
  uint8_t* half = w.derivative_half[0].data();
  uint8_t* other_half = w.derivative_half[1].data();
  if (param.output_enable[VELOSTRIX_OUTPUT_CURVATURE]) {
    MapToByteLinear(frame, x, half, param.curvature.gain, param.curvature.offset);
    MapToByteLinear(frame, y, other_half, param.curvature.gain, param.curvature.offset);
    SumBytes(frame, half, other_half, w.curvature_plane.data(), Negated(param.curvature.offset));
    results.curvature = Header(frame, w.curvature_plane.data(), CV_8UC1);
    ResizeBack(request, results.curvature);
  }
  if (param.output_enable[VELOSTRIX_OUTPUT_MAGNITUDE]) {
    // The second conversion overwrites the first, deliberately.
    MapToByteAbsLinear(frame, x, half, param.magnitude.gain, param.magnitude.offset);
    MapToByteAbsLinear(frame, y, half, param.magnitude.gain, param.magnitude.offset);
    SumBytes(frame, half, half, w.magnitude_plane.data(), Negated(param.magnitude.offset));
    results.magnitude = Header(frame, w.magnitude_plane.data(), CV_8UC1);
    ResizeBack(request, results.magnitude);
  }
}

// One divergence map, blurred after it has become bytes.
void MakePartialDerivatives(const RunRequest& request, Workspace& w, RunResults& results) {
  const Frame& frame = request.frame;
  const UnCalibrationParam& param = request.param;
  SlopeDivergence(frame, w.slope_p.data(), w.slope_q.data(), w.deriv_p.data());
  const auto deliver = [&](std::vector<uint8_t>& plane, cv::Mat& result) {
    result = Header(frame, plane.data(), CV_8UC1);
    if (param.blur_radius > 0) Blur(param.blur_radius, result, result);
    ResizeBack(request, result);
  };
  if (param.output_enable[VELOSTRIX_OUTPUT_CURVATURE]) {
    MapToByteLinear(frame, w.deriv_p.data(), w.curvature_plane.data(), param.curvature.gain,
                    param.curvature.offset);
    deliver(w.curvature_plane, results.curvature);
  }
  if (param.output_enable[VELOSTRIX_OUTPUT_MAGNITUDE]) {
    MapToByteAbsLinear(frame, w.deriv_p.data(), w.magnitude_plane.data(), param.magnitude.gain,
                       param.magnitude.offset);
    deliver(w.magnitude_plane, results.magnitude);
  }
}

}  // namespace

Workspace::Workspace(const Frame& frame) {
  const auto size = static_cast<size_t>(frame.rows * frame.row_step);
  for (auto* map : {&factor_map, &slope_p, &slope_q, &gated_factor_map, &deriv_p, &deriv_q,
                    &blurred_deriv_p, &blurred_deriv_q, &height_map}) {
    map->resize(size);
  }
  for (auto* plane :
       {&factor_plane, &channel_plane[0], &channel_plane[1], &channel_plane[2], &derivative_half[0],
        &derivative_half[1], &curvature_plane, &magnitude_plane}) {
    plane->resize(size);
  }
  height_plane.resize(size);
}

void Run(const RunRequest& request, Workspace& workspace, RunResults& results) {
  const UnCalibrationParam& param = request.param;
  RunLightStage(request, workspace);
  MakeMapImages(request, workspace, results);
  if (param.output_enable[VELOSTRIX_OUTPUT_CURVATURE] ||
      param.output_enable[VELOSTRIX_OUTPUT_MAGNITUDE]) {
    const bool partial = request.light_stage == LightStage::kPartRows ||
                         request.light_stage == LightStage::kPartCols;
    if (partial) {
      MakePartialDerivatives(request, workspace, results);
    } else {
      MakeFullFrameDerivatives(request, workspace, results);
    }
  }
  if (param.output_enable[VELOSTRIX_OUTPUT_HEIGHT]) {
    IntegrateHeight(request.frame, workspace.slope_p.data(), workspace.slope_q.data(),
                    param.iteration_cap, workspace.height_map.data());
    MapToWordNormalized(request.frame, workspace.height_map.data(), workspace.height_plane.data());
    results.height = Header(request.frame, workspace.height_plane.data(), CV_16UC1);
    ResizeBack(request, results.height);
  }
}

}  // namespace velostrix::reference
