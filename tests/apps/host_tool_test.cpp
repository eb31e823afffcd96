// velostrix::Tool: what it refuses, what it keeps, and that it gives the bytes of the flat
// interface.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "scene/sample_scene.h"
#include "velostrix/tool.hpp"

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

struct Call {
  std::vector<cv::Mat> images = Images(4);
  Parameters parameters;
};

struct Refusal {
  const char* name;
  std::function<void(Call&)> spoil;
  const char* message;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class RefusalTest : public testing::TestWithParam<Refusal> {};

TEST_P(RefusalTest, SaysWhatAndLeavesTheToolUsable) {
  const Call good;
  Tool tool;
  const Results before = tool.Reconstruct(good.images, good.parameters);
  Call call;
  GetParam().spoil(call);
  try {
    tool.Reconstruct(call.images, call.parameters);
    ADD_FAILURE() << "not refused";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find(GetParam().message), std::string::npos)
        << error.what();
  }
  ExpectEqual(tool.Reconstruct(good.images, good.parameters), before);
}

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Refusals, RefusalTest,
    testing::Values(
        Refusal{"none", [](Call& c) { c.images.clear(); }, "0 images given; expected 3 to 8"},
        Refusal{"two", [](Call& c) { c.images.resize(2); }, "2 images given; expected 3 to 8"},
        Refusal{"nine", [](Call& c) { c.images.resize(9, c.images[0]); }, "9 images given"},
        Refusal{"empty", [](Call& c) { c.images[2] = cv::Mat(); }, "image 3 is empty"},
        Refusal{"color", [](Call& c) { c.images[1] = cv::Mat(48, 64, CV_8UC3); },
                "image 2 is CV_8UC3; expected CV_8UC1"},
        Refusal{"words", [](Call& c) { c.images[0] = cv::Mat(48, 64, CV_16UC1); },
                "image 1 is CV_16UC1"},
        Refusal{"sizes", [](Call& c) { c.images[3] = cv::Mat(47, 64, CV_8UC1); },
                "image 4 has 64 x 47 pixels, image 1 has 64 x 48 pixels"},
        Refusal{"outside",
                [](Call& c) {
                  c.parameters.region = {60, 0, 5, 5};
                },
                "region of 5 x 5 pixels at (60, 0) is not inside the images of 64 x 48 pixels"},
        Refusal{"negative",
                [](Call& c) {
                  c.parameters.region = {-1, 0, 5, 5};
                },
                "(-1, 0)"},
        Refusal{"overflow",
                [](Call& c) {
                  c.parameters.region = {1, 1, std::numeric_limits<int>::max(), 5};
                },
                "is not inside"},
        Refusal{"small",
                [](Call& c) {
                  c.parameters.region = {5, 5, 2, 9};
                },
                "2 x 9 pixels to work on; expected at least 3 x 2"},
        Refusal{"scale0", [](Call& c) { c.parameters.scale = 0.0; }, "scale 0"},
        Refusal{"scale2", [](Call& c) { c.parameters.scale = 2.0; }, "scale 2"},
        Refusal{"scaleNan", [](Call& c) { c.parameters.scale = kNan; }, "scale"},
        Refusal{"blur", [](Call& c) { c.parameters.blur_radius = 32768; }, "blur radius 32768"},
        Refusal{"gain", [](Call& c) { c.parameters.channel[1].gain = kNan; },
                "gain is not finite"}),
    [](const auto& info) { return info.param.name; });

struct RunCase {
  const char* name;
  Parameters parameters;
  std::function<int32_t(UnCalibrationTool*, cv::Mat*)> run;
};

// One tool for all cases, so that whatever a case left behind meets the next.
TEST(HostToolTest, GivesTheBytesOfTheFlatInterface) {
  std::vector<RunCase> cases = {{"uncali",
                                 {},
                                 [](auto* t, cv::Mat* r) {
                                   return RunVelostrixUnCalibration_CPU_uncali(
                                       t, r, r + 1, r + 2, r + 3, r + 4, r + 5, r + 6, r + 7);
                                 }},
                                {"cali",
                                 {},
                                 [](auto* t, cv::Mat* r) {
                                   return RunVelostrixUnCalibration_CPU_cali(
                                       t, r, r + 1, r + 2, r + 3, r + 4, r + 5, r + 6, r + 7);
                                 }},
                                {"partrows",
                                 {},
                                 [](auto* t, cv::Mat* r) {
                                   return RunVelostrixUnCalibration_CPU_partrows_uncali(
                                       t, r, r + 1, r + 2, r + 3, r + 4, r + 5, r + 6, r + 7, 20);
                                 }},
                                {"partcols", {}, [](auto* t, cv::Mat* r) {
                                   return RunVelostrixUnCalibration_CPU_partcols_uncali(
                                       t, r, r + 1, r + 2, r + 3, r + 4, r + 5, r + 6, r + 7, 20);
                                 }}};
  for (size_t k = 0; k < cases.size(); ++k) {
    cases[k].parameters.run = static_cast<velostrix::Run>(k);
    cases[k].parameters.band = 20;
  }
  RunCase varied = cases[0];
  varied.name = "varied";
  varied.parameters.region = cv::Rect(5, 3, 50, 41);
  varied.parameters.scale = 0.5;
  varied.parameters.equalise = true;
  varied.parameters.difference = Difference::kForward;
  varied.parameters.blur_radius = 2;
  varied.parameters.iteration_cap = 7;
  varied.parameters.factor_gain = 0.5;
  varied.parameters.curvature = {100, 30.0};
  cases.insert(cases.begin() + 1, varied);

  // The results of the flat interface in the order of its arguments.
  constexpr Output kOrder[] = {Output::kFactor,   Output::kCurvature, Output::kMagnitude,
                               Output::kChannel0, Output::kChannel1,  Output::kChannel2,
                               Output::kNormal,   Output::kHeight};
  const std::vector<cv::Mat> images = Images(5);
  Tool tool;
  for (const RunCase& c : cases) {
    SCOPED_TRACE(c.name);
    const Parameters& p = c.parameters;
    UnCalibrationParam record = {};
    record.image_count = 5;
    record.width = record.row_step = 64;
    record.height = 48;
    for (int32_t& enabled : record.output_enable) enabled = 1;
    record.scale = p.scale;
    record.difference_mode = p.difference == Difference::kForward ? 1 : 0;
    record.blur_radius = p.blur_radius;
    record.iteration_cap = p.iteration_cap;
    record.factor_gain = p.factor_gain;
    record.curvature = p.curvature;
    record.magnitude = p.magnitude;
    for (size_t k = 0; k < 3; ++k) record.channel[k] = p.channel[k];
    record.equalise_on = p.equalise ? 1 : 0;

    UnCalibrationTool* flat = CreateVelostrixUnCalibrationToolPtr_CPU(nullptr);
    SetVelostrixUnCalibrationToolParam_CPU(flat, &record);
    if (p.region) SetVelostrixUnCalibrationToolROI_CPU(flat, 5, 3, 54, 43);
    InitialVelostrixUnCalibrationToolImage_CPU(flat);
    for (const cv::Mat& image : images) {
      ASSERT_TRUE(SetVelostrixUnCalibrationToolImage_CPU(flat, &image));
    }
    std::vector<cv::Mat> delivered(8);
    ASSERT_EQ(c.run(flat, delivered.data()), 1);
    Results expected;
    for (size_t k = 0; k < 8; ++k) expected[kOrder[k]] = delivered[k].clone();
    ReleaseVelostrixUnCalibrationToolImage_CPU(flat);
    DestroyVelostrixUnCalibrationToolPtr_CPU(flat);

    ExpectEqual(tool.Reconstruct(images, p), expected);
  }
}

TEST(HostToolTest, ReuseKeepsTheBuffers) {
  Tool tool;
  Parameters parameters;
  const Results first = tool.ReconstructViews(Images(4), parameters);
  const cv::Mat kept = first[Output::kCurvature].clone();
  parameters.curvature.gain *= 2.0;
  parameters.run = velostrix::Run::kPartRows;
  const Results second = tool.ReconstructViews(Images(4, {64, 48}, 2), parameters);
  for (const Output output : kAllOutputs) {
    if (output == Output::kNormal) continue;  // merged, so always its own
    EXPECT_EQ(first[output].data, second[output].data) << Name(output);
  }
  EXPECT_GT(cv::norm(first[Output::kCurvature], kept, cv::NORM_INF), 0.0) << "a view is no copy";
  EXPECT_EQ(tool.times().images.size(), 4U);
}

TEST(HostToolTest, CopiesOutliveTheTool) {
  Results copies;
  Results expected;
  {
    Tool tool;
    copies = tool.Reconstruct(Images(4), {});
    for (const Output output : kAllOutputs) expected[output] = copies[output].clone();
    tool.Reconstruct(Images(4, {64, 48}, 2), {});
  }
  ExpectEqual(copies, expected);
}

TEST(HostToolTest, EveryGeometryAndParameterIsAsOnAFreshTool) {
  std::vector<Call> calls(7);
  calls[1].parameters.scale = 0.5;
  calls[2].parameters.scale = 0.995;  // a scaling tool would not ignore it
  calls[3].images = Images(8);
  calls[4].parameters.region = cv::Rect(3, 4, 40, 30);
  calls[5].images = Images(3, {35, 70});
  Tool reused;
  for (size_t k = 0; k < calls.size(); ++k) {
    SCOPED_TRACE(k);
    Tool fresh;
    ExpectEqual(reused.Reconstruct(calls[k].images, calls[k].parameters),
                fresh.Reconstruct(calls[k].images, calls[k].parameters));
  }
}

TEST(HostToolTest, MovesWithItsViewsAndLeavesAUsableTool) {
  const Call call;
  Tool source;
  const Results views = source.ReconstructViews(call.images, call.parameters);
  Results expected;
  for (const Output output : kAllOutputs) expected[output] = views[output].clone();
  Tool moved = std::move(source);
  ExpectEqual(views, expected);
  ExpectEqual(source.Reconstruct(call.images, call.parameters), expected);
  ExpectEqual(moved.Reconstruct(call.images, call.parameters), expected);
  moved = Tool();
  ExpectEqual(moved.Reconstruct(call.images, call.parameters), expected);
  static_assert(!std::is_copy_constructible_v<Tool>);
}

TEST(HostToolTest, MakesWhatIsAskedForAndNothingElse) {
  Call call;
  call.parameters.outputs = {Output::kNormal, Output::kHeight};
  Tool tool;
  const Results results = tool.Reconstruct(call.images, call.parameters);
  EXPECT_EQ(results[Output::kNormal].type(), CV_8UC3);
  EXPECT_EQ(results[Output::kHeight].type(), CV_16UC1);
  EXPECT_EQ(results[Output::kChannel1].type(), CV_8UC1) << "comes with normal";
  for (const Output output : {Output::kFactor, Output::kCurvature, Output::kMagnitude}) {
    EXPECT_TRUE(results[output].empty()) << Name(output);
  }
}

}  // namespace
}  // namespace velostrix
