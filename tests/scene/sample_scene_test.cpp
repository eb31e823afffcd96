// The sample scene: its pictures follow from its ground truth, and are the same everywhere.
#include "scene/sample_scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace velostrix::scene {
namespace {

// Image k without noise, before it is rounded.
cv::Mat Levels(const Scene& scene, size_t k) {
  cv::Mat cosine;
  cv::transform(scene.normals, cosine, cv::Mat(scene.lamps[k].t()));
  return scene.albedo.mul(cosine);
}

TEST(SampleScene, ImagesAreAlbedoTimesCosineOfTheHeightsNormals) {
  constexpr double kFloatHeights = 2e-4;  // heights of up to a few hundred pixels as floats
  for (const cv::Size size : {cv::Size(16, 16), cv::Size(97, 35), cv::Size(640, 480)}) {
    for (const Lamps lamps : {Lamps::kRing, Lamps::kRandom}) {
      SCOPED_TRACE(testing::Message() << size << ", lamps " << static_cast<int>(lamps));
      const SceneOptions options = {size.width, size.height, 5, lamps, 1, 0.0};
      const Scene scene = Render(options);
      const cv::Rect inside(0, 0, size.width - 1, size.height - 1);
      const cv::Mat z = scene.height(inside);
      const cv::Mat p = scene.height(inside + cv::Point(1, 0)) - z;
      const cv::Mat q = z - scene.height(inside + cv::Point(0, 1));
      const double steepest = std::max(cv::norm(p, cv::NORM_INF), cv::norm(q, cv::NORM_INF));
      EXPECT_LE(steepest, options.steepness + kFloatHeights);
      EXPECT_GE(steepest, 0.2 * options.steepness);
      std::vector<cv::Mat> n;
      cv::split(scene.normals(inside), n);
      EXPECT_LT(cv::norm(n[0] / n[2] - p, cv::NORM_INF), kFloatHeights);
      EXPECT_LT(cv::norm(n[1] / n[2] - q, cv::NORM_INF), kFloatHeights);
      EXPECT_LT(cv::norm(n[0].mul(n[0]) + n[1].mul(n[1]) + n[2].mul(n[2]) - 1, cv::NORM_INF), 1e-6);
      for (size_t k = 0; k < scene.images.size(); ++k) {
        cv::Mat image;
        scene.images[k].convertTo(image, CV_32F);
        EXPECT_LT(cv::norm(image, Levels(scene, k), cv::NORM_INF), 0.5001);
        EXPECT_TRUE(cv::checkRange(Levels(scene, k), true, nullptr, 1.0, 254.0));  // no shadow
      }
    }
  }
}

TEST(SampleScene, SeedDecidesEveryByteOfTheNoise) {
  const Scene scene = Render({80, 60, 8, Lamps::kRandom, 1, 3.0});
  const Scene other = Render({80, 60, 8, Lamps::kRandom, 2, 3.0});
  uint64_t hash = 14695981039346656037U;  // FNV-1a
  for (size_t k = 0; k < scene.images.size(); ++k) {
    EXPECT_GT(cv::norm(scene.images[k], other.images[k], cv::NORM_INF), 0.0);
    for (const uint8_t level : cv::Mat1b(scene.images[k])) hash = (hash ^ level) * 1099511628211U;
    cv::Mat noise;
    cv::Scalar mean;
    cv::Scalar deviation;
    cv::subtract(scene.images[k], Levels(scene, k), noise, cv::noArray(), CV_64F);
    cv::meanStdDev(noise, mean, deviation);
    // Five standard errors over 80 x 60 pixels; rounding adds a variance of 1/12.
    EXPECT_NEAR(mean[0], 0.0, 0.2);
    EXPECT_NEAR(deviation[0], std::sqrt(9.0 + 1.0 / 12.0), 0.15);
  }
  EXPECT_EQ(hash, 15647785189156826035U) << "the bytes of every platform";
}

}  // namespace
}  // namespace velostrix::scene
