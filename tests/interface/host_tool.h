// A host of the loaded module: a tool that releases itself, runs by name, results by position.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <opencv2/core.hpp>
#include <ostream>
#include <vector>

#include "interface/loaded_module.h"

namespace velostrix {

enum class RunKind { kUncalibrated, kCalibrated, kPartRows, kPartCols };

constexpr std::array<RunKind, 4> kAllRuns = {RunKind::kUncalibrated, RunKind::kCalibrated,
                                             RunKind::kPartRows, RunKind::kPartCols};

inline bool IsPartial(RunKind kind) {
  return kind == RunKind::kPartRows || kind == RunKind::kPartCols;
}

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
  explicit HostTool(const UnCalibrationParam& param, Names names = Names::kPlain)
      : module_(LoadModule(names)), names_(names) {
    module_.create(&tool_);
    EXPECT_TRUE(SetParam(param));
  }
  // With buffers for the parameters.
  static HostTool Ready(const UnCalibrationParam& param, Names names = Names::kPlain) {
    HostTool tool(param, names);
    tool.InitialImage();
    return tool;
  }
  HostTool(HostTool&& other) noexcept
      : module_(other.module_), names_(other.names_), tool_(std::exchange(other.tool_, nullptr)) {}
  HostTool(const HostTool&) = delete;
  HostTool& operator=(const HostTool&) = delete;
  HostTool& operator=(HostTool&&) = delete;
  ~HostTool() {
    module_.release_image(tool_);
    module_.destroy(tool_);
  }

  UnCalibrationTool* get() const { return tool_; }
  const LoadedModule& module() const { return module_; }

  bool SetParam(const UnCalibrationParam& param) { return module_.set_param(tool_, &param); }
  bool SetRegion(const cv::Rect& region) {
    return module_.set_roi(tool_, region.x, region.y, region.x + region.width - 1,
                           region.y + region.height - 1);
  }
  void InitialImage() { module_.initial_image(tool_); }
  void ReleaseImage() { module_.release_image(tool_); }
  void ClearImage() { module_.clear_image(tool_); }

  // By the setter of the tool's names; the image is 8-bit single-channel.
  bool SetImage(const cv::Mat& image) {
    if (names_ == Names::kPlain) return module_.set_image(tool_, &image);
    const ImageRecord record = {
        image.data, image.cols, image.rows, static_cast<int32_t>(image.step[0]), 0, 1};
    return module_.set_image_record(tool_, &record);
  }
  void SetImages(const std::vector<cv::Mat>& images) {
    for (const cv::Mat& image : images) EXPECT_TRUE(SetImage(image));
  }

  int32_t Run(RunKind kind, const std::array<cv::Mat*, kResultCount>& r, int32_t band) {
    const auto full = [&](auto run) {
      return run(tool_, r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7]);
    };
    const auto partial = [&](auto run) {
      return run(tool_, r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7], band);
    };
    switch (kind) {
      case RunKind::kUncalibrated:
        return full(module_.run_uncali);
      case RunKind::kCalibrated:
        return full(module_.run_cali);
      case RunKind::kPartRows:
        return partial(module_.run_partrows);
      case RunKind::kPartCols:
      default:
        return partial(module_.run_partcols);
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
  LoadedModule module_;
  Names names_;
  UnCalibrationTool* tool_ = nullptr;
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
  cv::Mat beyond = difference > levels;
  return testing::AssertionFailure()
         << cv::countNonZero(beyond) << " of " << beyond.total() << " values differ by more than "
         << levels << ", most by " << most << " at " << at;
}

inline void ExpectSame(const Results& actual, const Results& expected) {
  for (size_t i = 0; i < kResultCount; ++i) {
    EXPECT_TRUE(AgreeWithin(0, actual[i], expected[i])) << kResultNames[i];
  }
}

}  // namespace velostrix
