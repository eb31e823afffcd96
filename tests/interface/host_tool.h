// The exported functions for tests: a tool that releases itself, runs by kind, results by position.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <opencv2/core.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "pipeline/run.h"
#include "velostrix/uncalibration.h"

namespace velostrix {

constexpr std::array<RunKind, 4> kAllRuns = {RunKind::kUncalibrated, RunKind::kCalibrated,
                                             RunKind::kPartRows, RunKind::kPartCols};

inline std::ostream& operator<<(std::ostream& out, RunKind kind) {
  constexpr const char* kNames[] = {"uncali", "cali", "partrows", "partcols"};
  return out << kNames[static_cast<size_t>(kind)];
}

// The results in the order of a run's arguments.
enum ResultIndex : size_t {
  kFactor,
  kCurvature,
  kMagnitude,
  kChannel0,
  kChannel1,
  kChannel2,
  kNormal,
  kHeight,
  kResultCount
};
using Results = std::array<cv::Mat, kResultCount>;
constexpr std::array<const char*, kResultCount> kResultNames = {
    "factor", "curvature", "magnitude", "channel0", "channel1", "channel2", "normal", "height"};
// The result that each switch of the parameter record stands for.
constexpr std::array<ResultIndex, VELOSTRIX_OUTPUT_COUNT> kResultOfSwitch = {
    kFactor, kCurvature, kMagnitude, kHeight, kChannel0, kChannel1, kChannel2, kNormal};

// Everything on, gains that spread the sample scene's values over the levels.
inline UnCalibrationParam EverythingOn(cv::Size size, size_t image_count) {
  UnCalibrationParam param = {};
  param.image_count = static_cast<int32_t>(image_count);
  param.width = param.row_step = size.width;
  param.height = size.height;
  for (int32_t& output : param.output_enable) output = 1;
  param.scale = 1.0;
  param.iteration_cap = 50;
  param.factor_gain = 0.9;
  param.curvature = {100, 150.0};
  param.magnitude = {20, 150.0};
  param.channel[0] = {128, 100.0};
  param.channel[1] = {120, -90.0};
  param.channel[2] = {30, 1000.0};
  return param;
}

class HostTool {
 public:
  explicit HostTool(const UnCalibrationParam& param)
      : tool_(CreateVelostrixUnCalibrationToolPtr_CPU(nullptr)) {
    EXPECT_TRUE(SetParam(param));
  }
  // With buffers for the parameters.
  static HostTool Ready(const UnCalibrationParam& param) {
    HostTool tool(param);
    tool.InitialImage();
    return tool;
  }
  HostTool(HostTool&& other) noexcept : tool_(std::exchange(other.tool_, nullptr)) {}
  ~HostTool() {
    ReleaseImage();
    DestroyVelostrixUnCalibrationToolPtr_CPU(tool_);
  }

  UnCalibrationTool* get() const { return tool_; }

  bool SetParam(const UnCalibrationParam& param) {
    return SetVelostrixUnCalibrationToolParam_CPU(tool_, &param);
  }
  bool SetRegion(const cv::Rect& region) {
    return SetVelostrixUnCalibrationToolROI_CPU(tool_, region.x, region.y, region.br().x - 1,
                                                region.br().y - 1);
  }
  void InitialImage() { InitialVelostrixUnCalibrationToolImage_CPU(tool_); }
  void ReleaseImage() { ReleaseVelostrixUnCalibrationToolImage_CPU(tool_); }
  void ClearImage() { ClearVelostrixUnCalibrationToolImage_CPU(tool_); }
  bool SetImage(const cv::Mat& image) {
    return SetVelostrixUnCalibrationToolImage_CPU(tool_, &image);
  }
  void SetImages(const std::vector<cv::Mat>& images) {
    for (const cv::Mat& image : images) EXPECT_TRUE(SetImage(image));
  }

  int32_t Run(RunKind kind, const std::array<cv::Mat*, kResultCount>& r, int32_t band) {
    const auto run = [&](auto function, auto... last) {
      return function(tool_, r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], last...);
    };
    switch (kind) {
      case RunKind::kUncalibrated:
        return run(RunVelostrixUnCalibration_CPU_uncali);
      case RunKind::kCalibrated:
        return run(RunVelostrixUnCalibration_CPU_cali);
      case RunKind::kPartRows:
        return run(RunVelostrixUnCalibration_CPU_partrows_uncali, band);
      case RunKind::kPartCols:
      default:
        return run(RunVelostrixUnCalibration_CPU_partcols_uncali, band);
    }
  }
  int32_t Run(RunKind kind, Results& results, int32_t band = 10) {
    std::array<cv::Mat*, kResultCount> places = {};
    for (size_t i = 0; i < kResultCount; ++i) places[i] = &results[i];
    return Run(kind, places, band);
  }

  // Sets the images, runs, and returns results that own their memory.
  Results Reconstruct(RunKind kind, const std::vector<cv::Mat>& images, int32_t band = 10) {
    SetImages(images);
    Results results;
    EXPECT_EQ(Run(kind, results, band), 1);
    for (cv::Mat& image : results) image = image.clone();
    return results;
  }

 private:
  UnCalibrationTool* tool_;
};

// Images of the same size and type that differ by at most so many levels; or two empty ones.
inline testing::AssertionResult AgreeWithin(int levels, const cv::Mat& a, const cv::Mat& b) {
  if (a.empty() && b.empty()) return testing::AssertionSuccess();
  if (a.size() != b.size() || a.type() != b.type()) {
    return testing::AssertionFailure()
           << a.size() << " type " << a.type() << " against " << b.size() << " type " << b.type();
  }
  cv::Mat difference;
  cv::absdiff(a.reshape(1), b.reshape(1), difference);
  double most = 0;
  cv::Point at;
  cv::minMaxLoc(difference, nullptr, &most, nullptr, &at);
  if (most <= levels) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << cv::countNonZero(difference > levels) << " values differ by more than " << levels
         << ", most by " << most << " at " << at;
}

inline void ExpectSame(const Results& actual, const Results& expected) {
  for (size_t i = 0; i < kResultCount; ++i) {
    EXPECT_TRUE(AgreeWithin(0, actual[i], expected[i])) << kResultNames[i];
  }
}

}  // namespace velostrix
