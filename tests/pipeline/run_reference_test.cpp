// Whole runs of the loaded module against the plain implementation.
//
// Where both decompose the same matrices, which is so for pieces below about a thousand pixels and
// in the calibrated run, every 8-bit result is the same to the byte. Larger pieces are decomposed
// by way of a small matrix: the maps then differ in the round-off of single precision, which can
// carry a value over the border between two levels. The height is solved in another order of
// additions in any case.
#include <gtest/gtest.h>

#include <functional>

#include "pipeline/expected_run.h"
#include "scene/sample_scene.h"

namespace velostrix {
namespace {

// Pieces of these frames have fewer than a thousand pixels, for bands of 10 too.
const cv::Size kFrame(34, 28);

std::vector<cv::Mat> SceneImages(cv::Size size, int count) {
  scene::SceneOptions options;
  options.width = size.width;
  options.height = size.height;
  options.images = count;
  options.lamps = scene::Lamps::kRandom;
  return scene::Render(options).images;
}

struct Variation {
  const char* name;
  std::function<void(RunSetup&)> apply;
};

const Variation kVariations[] = {
    {"plain", [](RunSetup&) {}},
    {"forward differences", [](RunSetup& s) { s.param.difference_mode = 1; }},
    {"other difference mode", [](RunSetup& s) { s.param.difference_mode = -7; }},
    {"negative blur", [](RunSetup& s) { s.param.blur_radius = -3; }},
    {"blur 1", [](RunSetup& s) { s.param.blur_radius = 1; }},
    {"blur 3", [](RunSetup& s) { s.param.blur_radius = 3; }},
    {"no iteration", [](RunSetup& s) { s.param.iteration_cap = 0; }},
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
    {"rows apart", [](RunSetup& s) { s.param.row_step = kFrame.width + 5; }},
    {"rows apart, blur 1",
     [](RunSetup& s) {
       s.param.row_step = kFrame.width + 1;
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
    {"wide band", [](RunSetup& s) { s.band = 24; }},
    {"band beyond the frame", [](RunSetup& s) { s.band = kFrame.width; }},
    {"band one short of the frame", [](RunSetup& s) { s.band = kFrame.width - 1; }},
};

void ExpectAgreement(const RunSetup& setup, const std::vector<cv::Mat>& images, int levels,
                     int derivative_levels, int height_levels) {
  const Results actual = ActualResults(setup, images);
  const Results expected = ExpectedResults(setup, images);
  for (size_t i = 0; i < kResultCount; ++i) {
    const bool is_derivative = i == kCurvature || i == kMagnitude;
    const int allowed = i == kHeight ? height_levels : is_derivative ? derivative_levels : levels;
    EXPECT_TRUE(AgreeWithin(allowed, actual[i], expected[i])) << kResultNames[i];
  }
}

// Heights differ by a few parts in a million of their range, at most: less than a level of 16 bits,
// so that rounding makes one level of it.
constexpr int kHeightLevels = 1;

TEST(RunReference, EqualInEveryVariation) {
  for (const RunKind kind : kAllRuns) {
    for (const Variation& variation : kVariations) {
      for (const int image_count : {3, 4, 8}) {
        SCOPED_TRACE(testing::Message()
                     << kind << ", " << variation.name << ", " << image_count << " images");

        RunSetup setup;
        setup.kind = kind;
        setup.param = EverythingOn(kFrame, static_cast<size_t>(image_count));
        variation.apply(setup);
        ExpectAgreement(setup, SceneImages(kFrame, image_count), 0, 0, kHeightLevels);
      }
    }
  }
}

TEST(RunReference, EqualInEveryWidth) {
  for (const RunKind kind : kAllRuns) {
    for (int width = 3; width <= 26; ++width) {
      SCOPED_TRACE(testing::Message() << kind << ", width " << width);
      const cv::Size size(width, 23);
      RunSetup setup;
      setup.kind = kind;
      setup.param = EverythingOn(size, 5);
      setup.param.row_step = width + width % 3;
      ExpectAgreement(setup, SceneImages(size, 5), 0, 0, kHeightLevels);
    }
  }
}

TEST(RunReference, LargeFramesDifferByRoundingOnly) {
  const cv::Size size(90, 70);
  const std::vector<cv::Mat> images = SceneImages(size, 6);
  for (const RunKind kind : kAllRuns) {
    for (const double scale : {1.0, 0.6}) {
      SCOPED_TRACE(testing::Message() << kind << ", scale " << scale);
      RunSetup setup;
      setup.kind = kind;
      setup.band = 40;
      setup.param = EverythingOn(size, 6);
      setup.param.scale = scale;
      // One level for a value that is rounded once, two for a sum of two such values. The maps
      // differ by a few parts in 100000, which is up to a level of height; rounding makes it two.
      ExpectAgreement(setup, images, 1, 2, 2);
    }
  }
}

}  // namespace
}  // namespace velostrix
