// A host's whole session through the exported functions: tool, images, run, results as bytes.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <opencv2/core.hpp>
#include <random>
#include <vector>

#include "velostrix/uncalibration.h"

namespace velostrix {

struct SessionCase {
  int width = 0, height = 0, image_count = 3;
  double scale = 1.0;
  int run = 0;  // 0 uncalibrated, 1 calibrated, 2 part columns, 3 part rows
  bool region = false;
};

inline UnCalibrationParam EveryOutput(const SessionCase& session) {
  UnCalibrationParam param = {};
  param.image_count = session.image_count;
  param.width = param.row_step = session.width;
  param.height = session.height;
  std::fill(std::begin(param.output_enable), std::end(param.output_enable), 1);
  param.scale = session.scale;
  param.blur_radius = 1;
  param.iteration_cap = 20;
  param.factor_gain = 1.0;
  param.curvature = param.magnitude = {100, 90.0};
  for (OutputScaling& channel : param.channel) channel = {128, 60.0};
  param.equalise_on = 1;
  return param;
}

inline std::vector<cv::Mat> NoiseImages(const SessionCase& session) {
  std::mt19937 random(static_cast<unsigned>(session.width * 100 + session.image_count));
  std::vector<cv::Mat> images;
  for (int k = 0; k < session.image_count; ++k) {
    images.emplace_back(session.height, session.width, CV_8UC1);
    for (uint8_t& level : cv::Mat_<uint8_t>(images.back())) level = static_cast<uint8_t>(random());
  }
  return images;
}

using Results = std::array<cv::Mat, VELOSTRIX_OUTPUT_COUNT>;

inline int32_t RunTool(UnCalibrationTool* tool, int run, Results& r, int32_t band = 16) {
  const auto call = [&](auto entry, auto... last) {
    return entry(tool, &r[0], &r[1], &r[2], &r[4], &r[5], &r[6], &r[7], &r[3], last...);
  };
  switch (run) {
    case 0:
      return call(RunVelostrixUnCalibration_CPU_uncali);
    case 1:
      return call(RunVelostrixUnCalibration_CPU_cali);
    case 2:
      return call(RunVelostrixUnCalibration_CPU_partcols_uncali, band);
    default:
      return call(RunVelostrixUnCalibration_CPU_partrows_uncali, band);
  }
}

// A tool that is released and destroyed with its scope.
class HostSession {
 public:
  HostSession() { CreateVelostrixUnCalibrationToolPtr_CPU(&tool_); }
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;
  ~HostSession() {
    ReleaseVelostrixUnCalibrationToolImage_CPU(tool_);
    DestroyVelostrixUnCalibrationToolPtr_CPU(tool_);
  }

  UnCalibrationTool* tool() const { return tool_; }

  void Prepare(const SessionCase& session, const UnCalibrationParam& param) {
    ReleaseVelostrixUnCalibrationToolImage_CPU(tool_);
    SetVelostrixUnCalibrationToolParam_CPU(tool_, &param);
    if (session.region) {
      SetVelostrixUnCalibrationToolROI_CPU(tool_, 1, 1, session.width - 2, session.height - 2);
    }
    InitialVelostrixUnCalibrationToolImage_CPU(tool_);
  }

  // Sets the images and runs. False: an image or the run was refused.
  bool Run(const SessionCase& session, const std::vector<cv::Mat>& images, Results& results) {
    ClearVelostrixUnCalibrationToolImage_CPU(tool_);
    for (const cv::Mat& image : images) {
      if (!SetVelostrixUnCalibrationToolImage_CPU(tool_, &image)) return false;
    }
    return RunTool(tool_, session.run, results) == 1;
  }

 private:
  UnCalibrationTool* tool_ = nullptr;
};

// The results' own bytes, one after another.
inline std::vector<uint8_t> BytesOf(const Results& results) {
  std::vector<uint8_t> bytes;
  for (const cv::Mat& image : results) {
    for (int i = 0; i < image.rows; ++i) {
      const auto row = image.ptr(i);
      bytes.insert(bytes.end(), row, row + static_cast<size_t>(image.cols) * image.elemSize());
    }
  }
  return bytes;
}

// The result bytes of a whole session; empty when something was refused.
inline std::vector<uint8_t> BytesOfSession(const SessionCase& session) {
  HostSession host;
  Results results;
  host.Prepare(session, EveryOutput(session));
  if (!host.Run(session, NoiseImages(session), results)) return {};
  return BytesOf(results);
}

}  // namespace velostrix
