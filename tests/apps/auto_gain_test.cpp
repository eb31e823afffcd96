// ChooseGains: pictures that can be read, whatever the scale of the maps.
#include "velostrix/auto_gain.hpp"

#include <gtest/gtest.h>

#include "scene/sample_scene.h"

namespace velostrix {
namespace {

const OutputSet kLinear = {Output::kCurvature, Output::kMagnitude, Output::kChannel0,
                           Output::kChannel1, Output::kChannel2};

std::vector<cv::Mat> SampleImages(scene::Lamps lamps, cv::Size size) {
  scene::SceneOptions options;
  options.lamps = lamps;
  options.width = size.width;
  options.height = size.height;
  return scene::Render(options).images;
}

class AutoGainTest : public testing::TestWithParam<Run> {};

TEST_P(AutoGainTest, FillsTheRange) {
  Tool tool;
  Parameters parameters;
  parameters.run = GetParam();
  parameters.outputs = kLinear;
  for (const cv::Size size : {cv::Size(64, 48), cv::Size(800, 600)}) {
    const std::vector<cv::Mat> images = SampleImages(scene::Lamps::kRing, size);
    // Gains that are far off, to begin with.
    parameters.curvature.gain = parameters.channel[0].gain = 1e9;
    const Parameters chosen = ChooseGains(tool, images, parameters);
    const Results results = tool.Reconstruct(images, chosen);
    for (const Output output : kAllOutputs) {
      if (!kLinear.Contains(output)) continue;
      const OutputScaling scaling = *Scaling(chosen, output);
      const auto reach = auto_gain_detail::MeasureReach(results[output], scaling.offset);
      const int target = 240 - scaling.offset;
      // The gain was found from a reach of 32 levels or more, read to one level.
      EXPECT_NEAR(reach.Widest(), target, 0.05 * target) << Name(output) << " at " << size;
      if (output == Output::kChannel2) continue;  // its offset is chosen too
      EXPECT_EQ(scaling.offset, Scaling(parameters, output)->offset) << Name(output);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Runs, AutoGainTest,
                         testing::Values(Run::kUncalibrated, Run::kCalibrated, Run::kPartRows,
                                         Run::kPartCols));

TEST(AutoGainTest, IsRepeatableAndKeepsWhatItIsTold) {
  const std::vector<cv::Mat> images = SampleImages(scene::Lamps::kRandom, {160, 120});
  Tool tool;
  Parameters parameters;
  parameters.curvature = {77, 12.5};
  const Parameters a = ChooseGains(tool, images, parameters, {Output::kCurvature});
  Tool other;
  const Parameters b = ChooseGains(other, images, parameters, {Output::kCurvature});
  EXPECT_EQ(a.curvature.gain, 12.5);
  EXPECT_EQ(a.curvature.offset, 77);
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(a.channel[k].gain, b.channel[k].gain);
  EXPECT_EQ(a.magnitude.gain, b.magnitude.gain);
}

TEST(AutoGainTest, FlatMapsKeepUsualGains) {
  const std::vector<cv::Mat> uniform(4, cv::Mat(48, 64, CV_8UC1, cv::Scalar(90)));
  Tool tool;
  Parameters parameters;
  parameters.run = velostrix::Run::kCalibrated;
  const Parameters chosen = ChooseGains(tool, uniform, parameters);
  EXPECT_EQ(chosen.curvature.gain, 128.0);
  EXPECT_EQ(chosen.magnitude.gain, 128.0);
}

}  // namespace
}  // namespace velostrix
