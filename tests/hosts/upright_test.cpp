// Uncalibrated runs put upright: whatever the lamps, in whatever order of pixels, in every run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

#include "bench/upright_scenes.h"
#include "velostrix/auto_gain.hpp"

namespace velostrix {
namespace {

using bench::Correlation;

TEST(Upright, HeightsAreUprightWhateverTheLamps) {
  constexpr int kScenes = 18;
  const bench::UprightCounts counts = bench::CountUpright(kScenes);
  EXPECT_GT(counts.as_is.neither, kScenes / 4) << "there is nothing to put right";
  EXPECT_EQ(counts.upright.neither, 0);
  EXPECT_EQ(counts.with_hint.upright, kScenes);
}

// The slopes (to the right, up) of a height and what they change by.
struct Truth {
  explicit Truth(const cv::Mat& height) {
    const cv::Size size = height.size();
    for (cv::Mat1f* map : {&right, &up, &bent, &saddle}) map->create(size), *map = 0.0F;
    const cv::Mat1f z = height;
    for (int i = 1; i < size.height - 1; ++i) {
      for (int j = 1; j < size.width - 1; ++j) {
        right(i, j) = z(i, j + 1) - z(i, j);
        up(i, j) = z(i, j) - z(i + 1, j);
        const float along = z(i, j + 1) + z(i, j - 1) - 2.0F * z(i, j);
        const float across = z(i + 1, j) + z(i - 1, j) - 2.0F * z(i, j);
        bent(i, j) = along + across;
        saddle(i, j) = along - across;
      }
    }
  }

  cv::Mat1f right, up, bent, saddle;
};

// All ways to turn and mirror a scene, whose lamps turn and are mirrored with it.
TEST(Upright, AllResultsAreThoseOfTheSceneAsSeen) {
  const scene::Scene scene = bench::RandomLampsScene(2);  // turned by -1 degrees
  for (const bool is_transposed : {false, true}) {
    for (const bool is_flipped : {false, true}) {
      const PixelOrder order = {is_transposed, is_flipped};
      for (const double degrees : {0.0, 180.0}) {  // the hint, and its opposite
        SCOPED_TRACE(testing::Message() << is_transposed << is_flipped << degrees);
        std::vector<cv::Mat> images;
        for (const cv::Mat& image : scene.images) images.push_back(order.Ordered(image));
        const Truth truth(order.Ordered(scene.height));
        Parameters p;
        p.orientation = Orientation::kUpright;
        p.iteration_cap = -1;
        p.channel[0] = {100, 25.0};
        p.channel[1] = {140, -25.0};
        p.curvature.gain = 60.0;
        const double hint = bench::RoughHint(scene, 0).degrees;
        const double turned = is_transposed ? 270.0 - hint : hint;
        p.lamp = {0, (is_flipped ? -turned : turned) + degrees};
        const double sign = degrees == 0.0 ? 1.0 : -1.0;
        Tool tool;
        const Results r = tool.Reconstruct(images, p);
        const OrientationFound& found = tool.orientation();
        EXPECT_TRUE(found.is_clear && !found.is_sign_open && found.has_mirrored_curvature);
        EXPECT_LT(std::abs(found.turn), 45.0);
        EXPECT_LT(std::min(found.curl_as_is, found.curl_mirrored), 0.05);
        EXPECT_GT(sign * Correlation(r[Output::kHeight], order.Ordered(scene.height)), 0.9);
        EXPECT_GT(sign * Correlation(r[Output::kChannel0], truth.right), 0.8);
        EXPECT_LT(sign * Correlation(r[Output::kChannel1], truth.up), -0.8);
        EXPECT_GT(sign * Correlation(r[Output::kCurvature], truth.bent), 0.6);
        std::vector<cv::Mat> channels;
        cv::split(r[Output::kNormal], channels);
        for (size_t k = 0; k < 3; ++k) {
          EXPECT_EQ(cv::norm(channels[k], r[kChannels[k]], cv::NORM_INF), 0.0);
        }

        // Not from the images all at once, and in a region.
        tool.Prepare(static_cast<int>(images.size()), images[0].size(), p);
        for (int part = 0; part < 2; ++part) {
          for (const cv::Mat& image : images) tool.SetImage(image);
          const Results again = tool.RunViews();
          for (const auto& [output, image] : r) {
            EXPECT_EQ(cv::norm(again[output], image, cv::NORM_INF), 0.0) << Name(output);
          }
        }
        p.region = cv::Rect(20, 10, 80, 70);
        p.scale = 0.8;
        const Results part = tool.Reconstruct(images, p);
        const cv::Mat1f right = truth.right(*p.region);
        EXPECT_GT(sign * Correlation(part[Output::kChannel0], right), 0.6);
      }
    }
  }
}

// The run that would show less curvature still has its sign.
TEST(Upright, CurvatureOfEitherOrientationHasTheSignOfTheScene) {
  for (int k = 0; k < 12; ++k) {
    const scene::Scene scene = bench::RandomLampsScene(k);
    Parameters p;
    p.orientation = Orientation::kUpright;
    p.lamp = bench::RoughHint(scene, 0);
    Tool tool;
    OrientationFound found;
    p.curvature.gain = ChooseGains(tool, scene.images, p, {}, &found).curvature.gain;
    const Truth truth(scene.height);
    const double turn = found.turn * CV_PI / 180.0;
    found.has_mirrored_curvature = false;
    const Results saddle = tool.Reconstruct(scene.images, p, &found);
    EXPECT_GT(Correlation(saddle[Output::kCurvature], truth.saddle), 0.6 * std::cos(turn) - 0.1);
    found.has_mirrored_curvature = true;
    const Results bent = tool.Reconstruct(scene.images, p, &found);
    EXPECT_GT(Correlation(bent[Output::kCurvature], truth.bent), 0.6 * std::cos(turn) - 0.1);
  }
}

TEST(Upright, WhatCannotBeToldIsLeftAsItComes) {
  // Relief in one direction only, none at all, and lamps that are known.
  const cv::Size size(160, 120);
  std::vector<cv::Mat> ridges;
  for (int k = 0; k < 4; ++k) {
    cv::Mat1b image(size);
    for (int j = 0; j < size.width; ++j) {
      const double slope = std::cos(0.2 * j);
      const double level = 120.0 + 50.0 * slope * std::cos(k) + 5.0 * std::sin(k);
      image.col(j) = static_cast<uint8_t>(level);
    }
    cv::randn(image.row(0), 120.0, 2.0);
    ridges.push_back(image);
  }
  const struct {
    const char* name;
    std::vector<cv::Mat> images;
    velostrix::Run run;
  } cases[] = {{"ridges", ridges, velostrix::Run::kUncalibrated},
               {"flat", std::vector<cv::Mat>(3, cv::Mat(size, CV_8UC1, cv::Scalar(90))),
                velostrix::Run::kUncalibrated},
               {"tiny", std::vector<cv::Mat>(3, cv::Mat(2, 3, CV_8UC1, cv::Scalar(90))),
                velostrix::Run::kUncalibrated},
               {"cali", bench::RandomLampsScene(0).images, velostrix::Run::kCalibrated}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Parameters p;
    p.run = c.run;
    Tool tool;
    const Results as_is = tool.Reconstruct(c.images, p);
    p.orientation = Orientation::kUpright;
    const Results upright = tool.Reconstruct(c.images, p);
    EXPECT_FALSE(tool.orientation().is_clear || tool.orientation().is_mirrored);
    EXPECT_EQ(cv::norm(as_is[Output::kHeight], upright[Output::kHeight], cv::NORM_INF), 0.0);
  }
}

// Pieces have signs of their own: what is promised is no more curl than without.
TEST(Upright, PartialRunsHaveNoMoreCurlThanAsIs) {
  int mirrored = 0;
  for (int k = 0; k < 8; ++k) {
    const scene::Scene scene = bench::RandomLampsScene(k);
    for (const auto run : {velostrix::Run::kPartRows, velostrix::Run::kPartCols}) {
      Parameters p;
      p.run = run;
      p.orientation = Orientation::kUpright;
      p.channel[0] = p.channel[1] = {128, 32.0};
      Tool tool;
      const Results r = tool.Reconstruct(scene.images, p);
      const OrientationFound& found = tool.orientation();
      EXPECT_FALSE(found.is_turned);
      const OrientationFound after = MeasureOrientation(r[Output::kChannel0], r[Output::kChannel1],
                                                        scene.images, std::nullopt, false);
      EXPECT_LE(after.curl_as_is, found.curl_as_is + 0.01);
      mirrored += found.is_mirrored;
    }
  }
  EXPECT_GT(mirrored, 0);
}

}  // namespace
}  // namespace velostrix
