// The sample scene: its pictures follow from its ground truth, and are the same everywhere.
#include "scene/sample_scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>

namespace velostrix::scene {
namespace {

bool AreEqual(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(LampsTest, RingIsThatOfTheCalibratedRun) {
  using Rows = std::vector<cv::Vec2f>;  // x, y; z is 0.5253 in every row
  const std::array<Rows, 6> expected = {
      Rows{{0.5675F, -0.6340F}, {0.3126F, 0.7914F}, {-0.8476F, -0.0752F}},
      Rows{{0.8509F, 0.0000F}, {-0.3813F, -0.7607F}, {-0.5092F, 0.6817F}, {0.8376F, 0.1498F}},
      Rows{{0.8509F, 0.0F},
           {-0.8230F, -0.2160F},
           {0.7413F, 0.4178F},
           {-0.6109F, -0.5923F},
           {0.4406F, 0.7280F}},
      Rows{{0.8509F, 0.0F},
           {-0.8104F, 0.2594F},
           {0.6928F, -0.4940F},
           {-0.5092F, 0.6817F},
           {0.2772F, -0.8045F},
           {-0.0188F, 0.8507F}},
      Rows{{0.8509F, 0.0F},
           {0.6315F, -0.5703F},
           {0.0864F, -0.8465F},
           {-0.5032F, -0.6862F},
           {-0.8333F, -0.1720F},
           {-0.7337F, 0.4309F},
           {-0.2558F, 0.8116F}},
      Rows{{0.8509F, 0.0F},
           {0.4470F, -0.7240F},
           {-0.3813F, -0.7607F},
           {-0.8476F, -0.0752F},
           {-0.5092F, 0.6817F},
           {0.3126F, 0.7914F},
           {0.8376F, 0.1498F},
           {0.5675F, -0.6340F}}};
  constexpr float kFourPlaces = 0.00005001F;
  for (const Rows& rows : expected) {
    const auto count = static_cast<int>(rows.size());
    const std::vector<cv::Vec3f> lamps = PlaceLamps(Lamps::kRing, count, 1);
    ASSERT_EQ(lamps.size(), rows.size());
    for (size_t k = 0; k < rows.size(); ++k) {
      EXPECT_NEAR(lamps[k][0], rows[k][0], kFourPlaces) << count << " lamps, lamp " << k;
      EXPECT_NEAR(lamps[k][1], rows[k][1], kFourPlaces) << count << " lamps, lamp " << k;
      EXPECT_NEAR(lamps[k][2], 0.5253F, kFourPlaces) << count << " lamps, lamp " << k;
    }
  }
}

TEST(LampsTest, RandomLampsStandAroundThePart) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    for (int count = 3; count <= 8; ++count) {
      cv::Vec2f sum;
      for (const cv::Vec3f& lamp : PlaceLamps(Lamps::kRandom, count, seed)) {
        const double length = cv::norm(lamp);
        const double slant = std::acos(lamp[2] / length) * 180.0 / CV_PI;
        EXPECT_TRUE(length > 0.849 && length < 1.001) << "seed " << seed << ": " << length;
        EXPECT_TRUE(slant > 34.9 && slant < 55.1) << "seed " << seed << ": " << slant;
        sum += cv::Vec2f(lamp[0], lamp[1]);
      }
      EXPECT_LT(cv::norm(sum) / count, 0.5) << "seed " << seed << ": all on one side";
    }
  }
}

// width, height, images, layout
class SceneTest : public testing::TestWithParam<std::tuple<cv::Size, int, Lamps>> {
 protected:
  static SceneOptions Options() {
    SceneOptions options;
    const auto [size, images, lamps] = GetParam();
    options.width = size.width;
    options.height = size.height;
    options.images = images;
    options.lamps = lamps;
    options.noise = 0.0;
    return options;
  }
};

TEST_P(SceneTest, NormalsAreThoseOfTheHeight) {
  const Scene scene = Render(Options());
  constexpr double kFloatHeights = 2e-4;  // heights of up to a few hundred pixels as floats
  double steepest = 0.0;
  for (int i = 0; i + 1 < scene.height.rows; ++i) {
    for (int j = 0; j + 1 < scene.height.cols; ++j) {
      const float z = scene.height.at<float>(i, j);
      const double p = scene.height.at<float>(i, j + 1) - z;
      const double q = z - scene.height.at<float>(i + 1, j);
      const cv::Vec3d n = scene.normals.at<cv::Vec3f>(i, j);
      ASSERT_NEAR(n[0] / n[2], p, kFloatHeights) << i << ", " << j;
      ASSERT_NEAR(n[1] / n[2], q, kFloatHeights) << i << ", " << j;
      ASSERT_NEAR(cv::norm(n), 1.0, 1e-6) << i << ", " << j;
      steepest = std::max({steepest, std::abs(p), std::abs(q)});
    }
  }
  EXPECT_LE(steepest, Options().steepness + kFloatHeights);
  EXPECT_GE(steepest, 0.2 * Options().steepness);
}

TEST_P(SceneTest, ImagesAreAlbedoTimesCosine) {
  const Scene scene = Render(Options());
  ASSERT_EQ(scene.images.size(), scene.lamps.size());
  for (size_t k = 0; k < scene.images.size(); ++k) {
    for (int i = 0; i < scene.height.rows; ++i) {
      for (int j = 0; j < scene.height.cols; ++j) {
        const double cosine = scene.normals.at<cv::Vec3f>(i, j).dot(scene.lamps[k]);
        const double level = scene.albedo.at<float>(i, j) * std::max(0.0, cosine);
        ASSERT_NEAR(scene.images[k].at<uint8_t>(i, j), level, 0.5001) << i << ", " << j;
        ASSERT_TRUE(level > 1.0 && level < 254.0) << "shadow or saturation at " << i << ", " << j;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    SizesCountsLayouts, SceneTest,
    testing::Combine(testing::Values(cv::Size(16, 16), cv::Size(97, 35), cv::Size(640, 480)),
                     testing::Values(3, 4, 8), testing::Values(Lamps::kRing, Lamps::kRandom)));

TEST(SceneTest, SeedDecidesEveryByte) {
  SceneOptions options;
  options.width = 80;
  options.height = 60;
  options.noise = 2.0;
  const Scene scene = Render(options);
  const Scene again = Render(options);
  options.seed = 2;
  const Scene other = Render(options);

  // FNV-1a, so that a platform that renders other bytes is noticed.
  uint64_t hash = 14695981039346656037U;
  for (size_t k = 0; k < scene.images.size(); ++k) {
    EXPECT_TRUE(AreEqual(scene.images[k], again.images[k]));
    EXPECT_FALSE(AreEqual(scene.images[k], other.images[k]));
    for (const uint8_t level : cv::Mat1b(scene.images[k])) {
      hash = (hash ^ level) * 1099511628211U;
    }
  }
  EXPECT_TRUE(AreEqual(scene.height, other.height));
  EXPECT_EQ(hash, 4275440313545529298U);
}

TEST(SceneTest, NoiseHasTheDeviationAskedFor) {
  SceneOptions options;
  options.images = 3;
  options.noise = 3.0;
  const Scene scene = Render(options);
  for (size_t k = 0; k < scene.images.size(); ++k) {
    cv::Mat1d noise(scene.height.size());
    for (int i = 0; i < noise.rows; ++i) {
      for (int j = 0; j < noise.cols; ++j) {
        const double cosine = scene.normals.at<cv::Vec3f>(i, j).dot(scene.lamps[k]);
        noise(i, j) = scene.images[k].at<uint8_t>(i, j) - scene.albedo.at<float>(i, j) * cosine;
      }
    }
    cv::Scalar mean;
    cv::Scalar deviation;
    cv::meanStdDev(noise, mean, deviation);
    // Five standard errors over 640 x 480 pixels; rounding adds a variance of 1/12.
    EXPECT_NEAR(mean[0], 0.0, 0.03);
    EXPECT_NEAR(deviation[0], std::sqrt(9.0 + 1.0 / 12.0), 0.03);
  }
}

}  // namespace
}  // namespace velostrix::scene
