// Numbers at and beyond the ends of their ranges, in images and parameters.
#include <gtest/gtest.h>

#include <limits>
#include <utility>

#include "interface/host_tool.h"

namespace velostrix {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// Blocks and tails: 37 columns hold two blocks of 16, one of 4 and a single pixel. The whole frame
// is too large to be decomposed whole.
const cv::Size kFrame(37, 30);

// Constant images sit where the decomposition decides by round-off: they must end, and end alike.
TEST(ExtremeNumbers, ConstantImagesAndExtremeParametersEndRepeatably) {
  const std::pair<int32_t, double> scalings[] = {{0, 0.0},   {kMin, 1e300},  {kMax, -1e300},
                                                 {-1, kNaN}, {1, kInfinity}, {255, 5e-324}};
  for (const int level : {0, 1, 255}) {
    const std::vector<cv::Mat> images(3, cv::Mat(kFrame, CV_8UC1, cv::Scalar(level)));
    for (const RunKind run : kAllRuns) {
      for (const auto& [offset, gain] : scalings) {
        SCOPED_TRACE(testing::Message() << "level " << level << ", " << run << ", offset " << offset
                                        << ", gain " << gain);
        UnCalibrationParam param = EverythingOn(kFrame, 3);
        param.factor_gain = gain;
        param.curvature = param.magnitude = {offset, gain};
        for (OutputScaling& channel : param.channel) channel = {offset, gain};
        param.difference_mode = offset;
        HostTool tool = HostTool::Ready(param);
        const Results first = tool.Reconstruct(run, images);
        ExpectSame(tool.Reconstruct(run, images), first);
        // No light: no albedo, no normal, a flat height.
        if (level != 0 || run != RunKind::kCalibrated) continue;
        EXPECT_EQ(cv::countNonZero(first[kFactor] != 128), 0);
        EXPECT_EQ(cv::countNonZero(first[kHeight]), 0);
      }
    }
  }
}

TEST(ExtremeNumbers, TheLargestBlurRadiusRunsAndOneMoreIsRefusedWhereImagesAreBlurred) {
  const std::vector<cv::Mat> images(3, cv::Mat(4, 5, CV_8UC1, cv::Scalar(9)));
  for (const bool blurs : {true, false}) {
    UnCalibrationParam param = EverythingOn({5, 4}, 3);
    param.output_enable[VELOSTRIX_OUTPUT_CURVATURE] = blurs ? 1 : 0;
    param.output_enable[VELOSTRIX_OUTPUT_MAGNITUDE] = 0;
    for (const int32_t radius : {32767, 32768, kMax}) {
      param.blur_radius = radius;
      HostTool tool = HostTool::Ready(param);
      for (const RunKind run : kAllRuns) {
        tool.ClearImage();
        tool.SetImages(images);
        Results results;
        EXPECT_EQ(tool.Run(run, results), radius <= 32767 || !blurs ? 1 : 0)
            << run << ", " << radius << (blurs ? "" : ", nothing blurred");
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
