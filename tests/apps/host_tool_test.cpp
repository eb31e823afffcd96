// velostrix::Tool: what it refuses, what it keeps from part to part, and the gains that it finds.
#include <gtest/gtest.h>

#include <map>

#include "scene/sample_scene.h"
#include "velostrix/auto_gain.hpp"

namespace velostrix {
namespace {

std::vector<cv::Mat> Images(int count, cv::Size size = {64, 48}, uint64_t seed = 1) {
  scene::SceneOptions options;
  options.width = size.width;
  options.height = size.height;
  options.images = count;
  options.seed = seed;
  return scene::Render(options).images;
}

void ExpectEqual(const Results& a, const Results& b) {
  for (const Output output : kAllOutputs) {
    ASSERT_EQ(a[output].size(), b[output].size()) << Name(output);
    ASSERT_EQ(a[output].type(), b[output].type()) << Name(output);
    if (a[output].empty()) continue;
    EXPECT_EQ(cv::norm(a[output], b[output], cv::NORM_INF), 0.0) << Name(output);
  }
}

// What else of a call is refused is tested with the host library.
TEST(HostTool, RefusalsLeaveTheToolUsable) {
  const auto with = [](size_t place, const cv::Mat& image) {
    std::vector<cv::Mat> images = Images(4);
    images[place] = image;
    return images;
  };
  Tool tool;
  const Results before = tool.Reconstruct(Images(4), {});
  for (const auto& [message, images] : std::map<std::string, std::vector<cv::Mat>>{
           {"0 images given; expected 3 to 8", {}},
           {"image 3 is empty", with(2, cv::Mat())},
           {"image 2 is CV_8UC3; expected CV_8UC1", with(1, cv::Mat3b(48, 64))}}) {
    try {
      static_cast<void>(tool.Reconstruct(images, {}));
      ADD_FAILURE() << message << ": not refused";
    } catch (const Error& error) {
      EXPECT_EQ(error.what(), message);
    }
    ExpectEqual(tool.Reconstruct(Images(4), {}), before);
    EXPECT_THROW(tool.SetImage(cv::Mat1b(48, 64)), WrongState);
  }
}

TEST(HostTool, EveryGeometryAndParameterIsAsOnAFreshTool) {
  struct {
    std::vector<cv::Mat> images = Images(4);
    Parameters parameters;
  } calls[8];
  calls[1].parameters.scale = 0.5;
  calls[2].parameters.scale = 0.995;  // a scaling tool would not ignore it
  calls[3].images = Images(8);
  calls[4].parameters.region = cv::Rect(3, 4, 40, 30);
  calls[5].images = Images(3, {35, 70});
  calls[6].parameters.outputs = {Output::kNormal, Output::kHeight};
  calls[7].parameters.run = velostrix::Run::kPartRows;
  Tool reused;
  for (const auto& call : calls) {
    SCOPED_TRACE(&call - calls);
    const auto& [images, parameters] = call;
    ExpectEqual(reused.Reconstruct(images, parameters), Tool().Reconstruct(images, parameters));
    EXPECT_EQ(reused.times().images.size(), images.size());
  }
}

template <typename T, typename = void>
constexpr bool kGivesViews = false;
template <typename T>
constexpr bool kGivesViews<T, std::void_t<decltype(std::declval<T>().RunViews())>> = true;

TEST(HostTool, ViewsMoveWithTheToolAndAreOverwrittenCopiesOutliveIt) {
  static_assert(!std::is_copy_constructible_v<Tool>);
  static_assert(kGivesViews<Tool&> && !kGivesViews<Tool>);
  const Results expected = Tool().Reconstruct(Images(4), {});
  Tool source;
  const Results first = source.ReconstructViews(Images(4), {});
  Tool moved = std::move(source);
  ExpectEqual(first, expected);
  ExpectEqual(source.Reconstruct(Images(4), {}), expected);
  const Results second = moved.ReconstructViews(Images(4, {64, 48}, 2), {});
  for (const Output output : kAllOutputs) {
    const bool is_view = output != Output::kNormal;  // which is merged
    EXPECT_EQ(first[output].data == second[output].data, is_view) << Name(output);
    EXPECT_NE(expected[output].u, nullptr) << Name(output);
  }
}

TEST(AutoGain, FillsTheRange) {
  for (const velostrix::Run run : {velostrix::Run::kUncalibrated, velostrix::Run::kCalibrated,
                                   velostrix::Run::kPartRows, velostrix::Run::kPartCols}) {
    for (const cv::Size size : {cv::Size(64, 48), cv::Size(800, 600)}) {
      Tool tool;
      Parameters parameters;
      parameters.run = run;
      parameters.curvature.gain = parameters.channel[0].gain = 1e9;  // far off, to begin with
      parameters.channel[1] = {77, 12.5};
      const auto chosen = ChooseGains(tool, Images(4, size), parameters, {Output::kChannel1});
      EXPECT_EQ(chosen.channel[1].gain, 12.5);
      EXPECT_EQ(chosen.channel[1].offset, 77);
      const Results results = tool.Reconstruct(Images(4, size), chosen);
      for (const Output output :
           {Output::kCurvature, Output::kMagnitude, Output::kChannel0, Output::kChannel2}) {
        const int offset = Scaling(chosen, output)->offset;
        const auto reach = auto_gain_detail::MeasureReach(results[output], offset);
        // The gain was found from a reach of 32 levels or more, read to one level.
        EXPECT_NEAR(reach.Widest(), 240 - offset, 0.05 * (240 - offset)) << Name(output) << size;
        const bool is_chosen_too = output == Output::kChannel2;
        EXPECT_TRUE(is_chosen_too || offset == Scaling(parameters, output)->offset);
      }
    }
  }
}

TEST(AutoGain, FlatMapsKeepUsualGains) {
  Tool tool;
  Parameters parameters;
  parameters.run = velostrix::Run::kCalibrated;
  const std::vector<cv::Mat> uniform(4, cv::Mat1b(48, 64, uint8_t{90}));
  parameters = ChooseGains(tool, uniform, parameters);
  EXPECT_EQ(parameters.curvature.gain, 128.0);
  EXPECT_EQ(parameters.magnitude.gain, 128.0);
}

}  // namespace
}  // namespace velostrix
