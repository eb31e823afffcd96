// Pixels that are left out: found, given, and without effect on anything else.
#include "velostrix/mask.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "scene/random_numbers.h"
#include "scene/sample_scene.h"
#include "velostrix/auto_gain.hpp"
#include "velostrix/diagnostics.hpp"

namespace velostrix {
namespace {

// A round part before black, whose camera sees a level or two there.
struct PartBeforeBlack {
  explicit PartBeforeBlack(double noise = 0.7) {
    images = scene::Render({240, 180, 4, scene::Lamps::kRandom}).images;
    part = cv::Mat1b(images.front().size(), 0);
    for (int i = 0; i < part.rows; ++i) {
      for (int j = 0; j < part.cols; ++j) {
        const double x = (j - 120) / 90.0;
        const double y = (i - 90) / 70.0;
        part(i, j) = x * x + y * y < 1.0 ? 255 : 0;
      }
    }
    scene::RandomNumbers random(9);
    for (cv::Mat& image : images) {
      for (int i = 0; i < part.rows; ++i) {
        for (int j = 0; j < part.cols; ++j) {
          const auto dark = cv::saturate_cast<uint8_t>(2.0 + noise * random.Gaussian());
          if (part(i, j) == 0) image.at<uint8_t>(i, j) = dark;
        }
      }
    }
  }

  std::vector<cv::Mat> images;
  cv::Mat1b part;
};

TEST(Mask, UnlitPixelsAreFound) {
  const PartBeforeBlack scene;
  const cv::Mat found = LitPixels(scene.images);
  EXPECT_LT(cv::countNonZero(found != scene.part), 0.03 * cv::countNonZero(scene.part));
  const std::vector<cv::Mat> whole = scene::Render({41, 30, 3, scene::Lamps::kRing}).images;
  EXPECT_EQ(cv::countNonZero(LitPixels(whole) == 0), 0);
}

TEST(Mask, WhatIsLeftOutIsNeutralAndChangesNothingElse) {
  for (const auto run : {velostrix::Run::kUncalibrated, velostrix::Run::kCalibrated}) {
    for (const auto orientation : {Orientation::kAsIs, Orientation::kUpright}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(run) << static_cast<int>(orientation));
      const PartBeforeBlack scene;
      const PartBeforeBlack noisier(20.0);
      Parameters p;
      p.run = run;
      p.orientation = orientation;
      p.region = cv::Rect(10, 5, 220, 170);
      Tool tool;
      tool.SetMask(scene.part);
      p = ChooseGains(tool, scene.images, p);
      const cv::Mat part = scene.part(*p.region);
      const Results r = tool.Reconstruct(scene.images, p);
      const Results other = tool.Reconstruct(noisier.images, p);
      tool.Prepare(4, scene.part.size(), p);
      for (const cv::Mat& image : scene.images) tool.SetImage(image);
      const Results again = tool.RunViews();
      for (const auto& [output, image] : r) {
        SCOPED_TRACE(Name(output));
        EXPECT_EQ(cv::norm(image, other[output], cv::NORM_INF), 0.0);
        EXPECT_EQ(cv::norm(image, again[output], cv::NORM_INF), 0.0);
        const double neutral = output == Output::kHeight ? 0.0 : 128.0;
        const cv::Scalar mean = cv::mean(image, part == 0);
        for (int c = 0; c < image.channels(); ++c) EXPECT_NEAR(mean[c], neutral, 1e-9);
      }
      for (const Output output : {Output::kChannel0, Output::kChannel1}) {
        const auto reach = auto_gain_detail::MeasureReach(r[output], 128, part);
        EXPECT_NEAR(reach.Widest(), 112, 6) << "the part does not fill the range";
      }
    }
  }
}

TEST(Mask, LeavesPixelsOutOfDiagnostics) {
  const PartBeforeBlack scene(0.0);
  std::vector<cv::Mat> images = scene.images;
  for (cv::Mat& image : images) image.setTo(0, scene.part == 0);
  images[1].rowRange(0, 15).setTo(255);  // a lamp's reflection beside the part
  const Diagnostics without = Diagnose(images, {});
  const Diagnostics with = Diagnose(images, {}, {}, scene.part);
  EXPECT_EQ(cv::countNonZero(images[1].rowRange(0, 15) != 255), 0) << "the images are changed";
  EXPECT_GE(without.warning_count, 2);
  EXPECT_EQ(with.warning_count, 0) << with.warnings.front();
  EXPECT_EQ(with.exposures[1].saturated_share + with.exposures[0].black_share, 0.0);
  EXPECT_GT(with.exposures[0].mean_level, without.exposures[0].mean_level + 20.0);
}

TEST(Mask, OfAnotherSizeOrWithoutPixelsIsRefused) {
  const PartBeforeBlack scene;
  Tool tool;
  EXPECT_THROW(tool.SetMask(cv::Mat1b(20, 20, uint8_t{0})), Error);
  EXPECT_THROW(tool.SetMask(cv::Mat1f(180, 240, 1.0F)), Error);
  const cv::Mat1b small(20, 20, 255);
  tool.SetMask(small);
  EXPECT_THROW(static_cast<void>(tool.Reconstruct(scene.images, {})), Error);
  EXPECT_THROW(static_cast<void>(ChooseGains(tool, scene.images, Parameters())), Error);
  EXPECT_THROW(static_cast<void>(Diagnose(scene.images, {}, {}, small)), Error);
  tool.SetMask({});
  EXPECT_FALSE(tool.Reconstruct(scene.images, {})[Output::kHeight].empty());
}

}  // namespace
}  // namespace velostrix
