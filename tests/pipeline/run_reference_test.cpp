// Whole runs of the module against the plain implementation.
//
// Where both decompose the same matrices, which is so for pieces below about a thousand pixels and
// in the calibrated run, every 8-bit result is the same to the byte. The height is solved in
// another order of additions: it differs by a few parts in a million of its range, less than one of
// its 16 bits, so that rounding makes one level of it.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <optional>

#include "interface/host_tool.h"
#include "reference/reference_runs.h"
#include "scene/sample_scene.h"

namespace velostrix {
namespace {

// Pieces of these frames have fewer than a thousand pixels, for bands of 10 too.
const cv::Size kFrame(34, 28);

struct RunSetup {
  RunSetup(RunKind run, int count, cv::Size frame = kFrame)
      : kind(run),
        param(EverythingOn(frame, static_cast<size_t>(count))),
        images(scene::Render({frame.width, frame.height, count, scene::Lamps::kRandom}).images) {}

  RunKind kind;
  UnCalibrationParam param;
  std::vector<cv::Mat> images;
  std::optional<cv::Rect> region;  // above 10 pixels each way after scaling
  int32_t band = 10;
};

Results ActualResults(const RunSetup& setup) {
  HostTool tool(setup.param);
  if (setup.region) {
    EXPECT_TRUE(tool.SetRegion(*setup.region));
  }
  tool.InitialImage();
  // A run leaves nothing behind that the next one could see.
  tool.Reconstruct(setup.kind, {setup.images.rbegin(), setup.images.rend()}, setup.band);
  return tool.Reconstruct(setup.kind, setup.images, setup.band);
}

Results ExpectedResults(const RunSetup& setup) {
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
  const cv::Size size(static_cast<int>(frame.cols), static_cast<int>(frame.rows));
  const auto row_step = static_cast<size_t>(frame.row_step);
  const auto plane_size = static_cast<size_t>(frame.plane_size);
  std::vector<uint8_t> stack(setup.images.size() * plane_size);
  frame.stack = stack.data();
  for (size_t k = 0; k < setup.images.size(); ++k) {
    cv::Mat working = setup.images[k](region).clone();
    if (scales) cv::resize(working, working, size, 0, 0, cv::INTER_LINEAR);
    std::vector<double> levels;
    if (param.equalise_on != 0) working = reference::EqualiseBrightness(levels, working, -1.0);
    working.copyTo(cv::Mat(size, CV_8UC1, &stack[k * plane_size], row_step));
  }

  request.light_stage = static_cast<reference::LightStage>(setup.kind);  // in the same order
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

struct Variation {
  const char* name;
  void (*apply)(RunSetup& setup);
};

const Variation kVariations[] = {
    {"plain", [](RunSetup&) {}},
    {"forward differences", [](RunSetup& s) { s.param.difference_mode = 1; }},
    {"negative blur", [](RunSetup& s) { s.param.blur_radius = -3; }},
    {"blur 3", [](RunSetup& s) { s.param.blur_radius = 3; }},
    {"blur wider than the frame", [](RunSetup& s) { s.param.blur_radius = 200; }},
    {"one iteration", [](RunSetup& s) { s.param.iteration_cap = 1; }},
    {"all iterations", [](RunSetup& s) { s.param.iteration_cap = -1; }},
    {"equalised", [](RunSetup& s) { s.param.equalise_on = -1; }},
    {"region", [](RunSetup& s) { s.region = cv::Rect(3, 5, 21, 17); }},
    {"scaled", [](RunSetup& s) { s.param.scale = 0.55; }},
    {"scaled region, equalised, blur 2",
     [](RunSetup& s) {
       s.region = cv::Rect(2, 1, 30, 26);
       s.param.scale = 0.7;
       s.param.equalise_on = 1;
       s.param.blur_radius = 2;
     }},
    {"rows apart, blur 1",
     [](RunSetup& s) {
       s.param.row_step = kFrame.width + 5;
       s.param.blur_radius = 1;
     }},
    {"saturating",
     [](RunSetup& s) {
       s.param.factor_gain = 3.0;
       s.param.curvature = {-40, 900.0};
       s.param.magnitude = {250, 2000.0};
       s.param.channel[0] = {-100000, 1e6};
       s.param.channel[2] = {300, -1000.0};
     }},
    {"lowest band", [](RunSetup& s) { s.band = INT32_MIN; }},
    {"band 9", [](RunSetup& s) { s.band = 9; }},
    {"largest band", [](RunSetup& s) { s.band = INT32_MAX; }},
    {"band one short of the frame", [](RunSetup& s) { s.band = kFrame.width - 1; }},
    {"black", [](RunSetup& s) { s.images.assign(s.images.size(), s.images[0] * 0); }},
    {"flat", [](RunSetup& s) { s.images.assign(s.images.size(), s.images[0] * 0 + 140); }},
    {"equal images", [](RunSetup& s) { s.images.assign(s.images.size(), s.images[0]); }},
};

TEST(RunReference, EqualInEveryVariation) {
  for (const RunKind kind : kAllRuns) {
    for (const Variation& variation : kVariations) {
      for (const int image_count : {3, 4, 8}) {
        SCOPED_TRACE(testing::Message()
                     << kind << ", " << variation.name << ", " << image_count << " images");
        RunSetup setup(kind, image_count);
        variation.apply(setup);
        const Results actual = ActualResults(setup);
        const Results expected = ExpectedResults(setup);
        for (size_t i = 0; i < kResultCount; ++i) {
          EXPECT_TRUE(AgreeWithin(i == kHeight ? 1 : 0, actual[i], expected[i])) << kResultNames[i];
        }
      }
    }
  }
}

// Large pieces are decomposed another way, heights are shared by threads: both round differently. A
// byte that is the sum of two may differ by two.
TEST(RunReference, LargeFramesAgreeWithinRounding) {
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(testing::Message() << kind);
    RunSetup setup(kind, 4, {260, 200});
    setup.band = 50;
    const Results actual = ActualResults(setup);
    const Results expected = ExpectedResults(setup);
    for (size_t i = 0; i < kResultCount; ++i) {
      EXPECT_TRUE(AgreeWithin(i == kHeight ? 8 : 2, actual[i], expected[i])) << kResultNames[i];
    }
  }
}

}  // namespace
}  // namespace velostrix
