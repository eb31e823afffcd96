// Numbers at and beyond the ends of their ranges, in maps, images and parameters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "host_session.h"
#include "maps/byte_maps.h"
#include "maps/derivative_maps.h"
#include "maps/height.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// Blocks and tails: 21 columns hold a block of 16, one of 4 and a single pixel.
const SessionCase kFrame = {21, 12, 3, 1.0, 0, false};

TEST(ExtremeNumbers, MapsOfUnconvertibleValuesGiveBlackPixels) {
  HostSession host;
  host.Prepare(kFrame, EveryOutput(kFrame));
  UnCalibrationTool& tool = *host.tool();
  const int64_t pixels = tool.rows * tool.cols;
  for (const float value : {kNaN, kInfinity, -kInfinity, 1e30F, -1e30F}) {
    SCOPED_TRACE(value);
    std::fill_n(tool.slope_p, pixels, value);
    std::fill_n(tool.slope_q, pixels, value);
    std::fill_n(tool.factor_plane, pixels, uint8_t{1});
    EXPECT_EQ(MapToByteLinear(tool, tool.slope_p, tool.factor_plane, 1.0, 0), 1);
    EXPECT_EQ(std::count(tool.factor_plane, tool.factor_plane + pixels, 0), pixels);
    std::fill_n(tool.factor_plane, pixels, uint8_t{1});
    EXPECT_EQ(MapToByteAbsLinear(tool, tool.slope_p, tool.factor_plane, 1.0, 0), 1);
    EXPECT_EQ(std::count(tool.factor_plane, tool.factor_plane + pixels, 0), pixels);
    EXPECT_EQ(DeriveSlopeMaps(tool, tool.slope_p, tool.slope_q, tool.deriv_p, tool.deriv_q), 1);
    EXPECT_EQ(SlopeDivergence(tool, tool.slope_p, tool.slope_q, tool.deriv_p), 1);
  }
}

TEST(ExtremeNumbers, OneNaNOrInfinityInTheSlopesEndsTheHeightSolve) {
  HostSession host;
  UnCalibrationParam param = EveryOutput(kFrame);
  param.iteration_cap = -1;
  host.Prepare(kFrame, param);
  UnCalibrationTool& tool = *host.tool();
  const int64_t pixels = tool.rows * tool.cols;
  for (const float value : {kNaN, kInfinity, -kInfinity, 3e38F}) {
    SCOPED_TRACE(value);
    std::fill_n(tool.slope_p, pixels, 0.5F);
    std::fill_n(tool.slope_q, pixels, 0.25F);
    tool.slope_p[pixels / 2] = value;
    ASSERT_TRUE(IntegrateHeight(tool, tool.slope_p, tool.slope_q, &tool.height_map));
    EXPECT_TRUE(MapToWordNormalized(tool, tool.height_map, tool.height_plane));
    if (std::isfinite(value)) continue;
    // Nothing finite is left: no range, no height.
    EXPECT_EQ(std::count(tool.height_plane, tool.height_plane + pixels, 0), pixels);
  }
}

// Constant images sit where the decomposition decides by round-off: they must end, and end alike.
TEST(ExtremeNumbers, ConstantImagesAndExtremeParametersEndRepeatably) {
  const std::vector<std::pair<int32_t, double>> scalings = {
      {0, 0.0},     {kMin, 1e300}, {kMax, -1e300}, {-1, double{kNaN}}, {1, double{kInfinity}},
      {kMin, -0.0}, {255, 5e-324}};
  for (const int level : {0, 1, 255}) {
    for (int run = 0; run < 4; ++run) {
      for (const auto& [offset, gain] : scalings) {
        SCOPED_TRACE(testing::Message() << "level " << level << ", run " << run << ", offset "
                                        << offset << ", gain " << gain);
        SessionCase session = kFrame;
        session.run = run;
        UnCalibrationParam param = EveryOutput(session);
        param.factor_gain = gain;
        param.curvature = param.magnitude = {offset, gain};
        for (OutputScaling& channel : param.channel) channel = {offset, gain};
        param.difference_mode = offset;
        const std::vector<cv::Mat> images(
            3, cv::Mat(session.height, session.width, CV_8UC1, cv::Scalar(level)));
        HostSession host;
        Results results;
        host.Prepare(session, param);
        ASSERT_TRUE(host.Run(session, images, results));
        const std::vector<uint8_t> first = BytesOf(results);
        ASSERT_TRUE(host.Run(session, images, results));
        EXPECT_EQ(BytesOf(results), first);
        if (level != 0 || run != 1) continue;
        // No light: no albedo, no normal, a flat height.
        EXPECT_EQ(cv::countNonZero(results[VELOSTRIX_OUTPUT_FACTOR] != 128), 0);
        EXPECT_EQ(cv::countNonZero(results[VELOSTRIX_OUTPUT_HEIGHT]), 0);
      }
    }
  }
}

TEST(ExtremeNumbers, TheLargestBlurRadiusRunsAndOneMoreIsRefused) {
  const SessionCase session = {5, 4, 3, 1.0, 1, false};
  HostSession host;
  UnCalibrationParam param = EveryOutput(session);
  for (const int32_t radius : {32767, 32768, kMax}) {
    param.blur_radius = radius;
    host.Prepare(session, param);
    Results results;
    EXPECT_EQ(host.Run(session, NoiseImages(session), results), radius <= 32767) << radius;
  }
}

// Scaling stays on when a later record has another scale, whatever that is.
TEST(ExtremeNumbers, ARegionScaledBeyondAnyImageIsRefusedAndChangesNothing) {
  for (const double scale : {1e9, 1e300, double{kInfinity}}) {
    SCOPED_TRACE(scale);
    HostSession host;
    UnCalibrationParam param = EveryOutput(kFrame);
    param.scale = 0.5;
    SetVelostrixUnCalibrationToolParam_CPU(host.tool(), &param);
    param.scale = scale;
    SetVelostrixUnCalibrationToolParam_CPU(host.tool(), &param);
    EXPECT_FALSE(SetVelostrixUnCalibrationToolROI_CPU(host.tool(), 0, 0, 15, 11));
    EXPECT_EQ(host.tool()->rows, kFrame.height);
    EXPECT_EQ(host.tool()->roi_set, 0);
    InitialVelostrixUnCalibrationToolImage_CPU(host.tool());
    EXPECT_EQ(host.tool()->allocated_pixels, 0);
  }
}

// Fewer images leave room in the stack for larger planes, but not in the maps.
TEST(ExtremeNumbers, AFrameThatFitsTheStackButNotTheMapsIsRefused) {
  const SessionCase allocated = {10, 10, 8, 1.0, 0, false};
  const SessionCase grown = {20, 12, 3, 1.0, 0, false};
  HostSession host;
  host.Prepare(allocated, EveryOutput(allocated));
  const UnCalibrationParam param = EveryOutput(grown);
  SetVelostrixUnCalibrationToolParam_CPU(host.tool(), &param);
  EXPECT_FALSE(SetVelostrixUnCalibrationToolImage_CPU(host.tool(), &NoiseImages(grown)[0]));
  for (int run = 0; run < 4; ++run) {
    Results results;
    EXPECT_EQ(RunTool(host.tool(), run, results), 0) << run;
    EXPECT_TRUE(BytesOf(results).empty()) << run;
  }
}

}  // namespace
}  // namespace velostrix
