// Brightness equalisation: equal to the scalar rule at every width, in and into any kind of image.
#include "tool/equalisation.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <vector>

#include "reference/reference_stages.h"

namespace velostrix {
namespace {

using Levels = std::vector<double>;

cv::Mat RandomImage(int rows, int cols, int type, uint32_t seed) {
  cv::Mat image(rows, cols, type);
  cv::RNG random(seed);
  random.fill(image, cv::RNG::UNIFORM, 0, 256);
  return image;
}

// Columns that differ in brightness, so that the offsets do.
cv::Mat UnevenImage(int rows, int cols, uint32_t seed) {
  cv::Mat image = RandomImage(rows, cols, CV_8UC1, seed);
  cv::RNG random(seed + 1);
  for (int j = 0; j < cols; ++j) image.col(j) *= random.uniform(0.0, 1.0);
  return image;
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(Equalisation, EqualsTheScalarRule) {
  for (int cols = 1; cols <= 40; ++cols) {
    for (const int rows : {1, 2, 17}) {
      for (const double reference_level : {-1.0, 0.0, 100.5, 255.0, 255.001}) {
        for (const int stored_levels : {0, cols, cols + 1}) {
          SCOPED_TRACE(testing::Message()
                       << cols << " x " << rows << ", reference level " << reference_level
                       << ", stored levels " << stored_levels << ", seed " << cols);
          // A region of a larger image, so that rows have gaps.
          const cv::Mat larger = UnevenImage(rows + 2, cols + 5, static_cast<uint32_t>(cols));
          const cv::Mat source = larger(cv::Rect(3, 1, cols, rows));
          Levels levels(static_cast<size_t>(stored_levels), 77.0), expected_levels = levels;
          const cv::Mat expected =
              reference::EqualiseBrightness(expected_levels, source, reference_level);

          cv::Mat equalised;
          EXPECT_TRUE(EqualiseBrightness(levels, source, equalised, reference_level));
          EXPECT_TRUE(Same(equalised, expected));
          EXPECT_EQ(levels, expected_levels);
        }
      }
    }
  }
}

TEST(Equalisation, ByHand) {
  struct Case {
    const char* name;
    cv::Mat source;
    Levels levels;
    cv::Mat expected;
  };
  const Case cases[] = {
      {"equal means",
       (cv::Mat_<uint8_t>(2, 2) << 10, 0, 20, 30),
       {15, 15},
       (cv::Mat_<uint8_t>(2, 2) << 10, 0, 20, 30)},
      {"means of 100 and 103.6",
       (cv::Mat_<uint8_t>(5, 2) << 100, 103, 100, 104, 100, 104, 100, 104, 100, 103),
       {100, 104},
       (cv::Mat_<uint8_t>(5, 2) << 102, 101, 102, 102, 102, 102, 102, 102, 102, 101)},
      {"half a level is none",
       (cv::Mat_<uint8_t>(1, 2) << 10, 11),
       {10, 11},
       (cv::Mat_<uint8_t>(1, 2) << 10, 11)},
      {"one level and a half is one",
       (cv::Mat_<uint8_t>(1, 2) << 10, 13),
       {10, 13},
       (cv::Mat_<uint8_t>(1, 2) << 11, 12)},
      {"saturation",
       (cv::Mat_<uint8_t>(3, 2) << 250, 3, 30, 177, 20, 180),
       {100, 120},
       (cv::Mat_<uint8_t>(3, 2) << 255, 0, 40, 167, 30, 170)},
  };
  for (const Case& c : cases) {
    Levels levels;
    cv::Mat equalised;
    EXPECT_TRUE(EqualiseBrightness(levels, c.source, equalised, -1.0)) << c.name;
    EXPECT_EQ(levels, c.levels) << c.name;
    EXPECT_TRUE(Same(equalised, c.expected)) << c.name << "\n" << equalised;
  }
}

// A reference level counts only when the image before had as many columns.
TEST(Equalisation, TargetLevel) {
  struct Case {
    double reference_level;
    Levels stored;
    int expected;  // of two columns of 10 and 30
  };
  const Case cases[] = {{100, {1, 2}, 100},   {100.9, {1, 2}, 100}, {0, {1, 2}, 0},
                        {255, {1, 2}, 255},   {100, {}, 20},        {100, {1, 2, 3}, 20},
                        {-0.001, {1, 2}, 20}, {255.001, {1, 2}, 20}};
  const cv::Mat source = (cv::Mat_<uint8_t>(2, 2) << 10, 30, 10, 30);
  for (const Case& c : cases) {
    Levels levels = c.stored;
    cv::Mat equalised;
    EXPECT_TRUE(EqualiseBrightness(levels, source, equalised, c.reference_level));
    EXPECT_TRUE(Same(equalised, cv::Mat(2, 2, CV_8UC1, cv::Scalar(c.expected))))
        << c.reference_level << " with " << c.stored.size() << " stored levels\n"
        << equalised;
    EXPECT_EQ(levels, (Levels{10, 30}));
  }
}

TEST(Equalisation, DestinationIsReusedWhereItFits) {
  const cv::Mat source = UnevenImage(6, 13, 5);
  Levels levels;
  const cv::Mat expected = reference::EqualiseBrightness(levels, source, -1.0);

  const cv::Mat around = RandomImage(8, 20, CV_8UC1, 6);
  cv::Mat larger = around.clone();
  cv::Mat inside = larger(cv::Rect(4, 1, 13, 6));
  EXPECT_TRUE(EqualiseBrightness(levels, source, inside, -1.0));
  EXPECT_EQ(inside.data, larger.ptr(1, 4));
  cv::Mat wanted = around.clone();
  expected.copyTo(wanted(cv::Rect(4, 1, 13, 6)));
  EXPECT_TRUE(Same(larger, wanted)) << "what surrounds the destination has changed";

  cv::Mat in_place = source.clone();
  EXPECT_TRUE(EqualiseBrightness(levels, in_place, in_place, -1.0));
  EXPECT_TRUE(Same(in_place, expected));

  for (cv::Mat other : {cv::Mat(), cv::Mat(6, 12, CV_8UC1), cv::Mat(5, 13, CV_8UC1),
                        cv::Mat(6, 13, CV_8UC3), cv::Mat(6, 13, CV_16UC1)}) {
    EXPECT_TRUE(EqualiseBrightness(levels, source, other, -1.0));
    EXPECT_TRUE(Same(other, expected));
  }
}

TEST(Equalisation, RefusalsTouchNothing) {
  for (const cv::Mat& source : {cv::Mat(), cv::Mat(0, 4, CV_8UC1), cv::Mat(4, 0, CV_8UC1),
                                RandomImage(3, 4, CV_8UC3, 7), RandomImage(3, 4, CV_8UC2, 8)}) {
    Levels levels = {1, 2, 3, 4};
    cv::Mat destination(3, 4, CV_8UC1, cv::Scalar(9));
    const uint8_t* data = destination.data;
    EXPECT_FALSE(EqualiseBrightness(levels, source, destination, -1.0));
    EXPECT_EQ(destination.data, data);
    EXPECT_TRUE(Same(destination, cv::Mat(3, 4, CV_8UC1, cv::Scalar(9))));
    EXPECT_EQ(levels, (Levels{1, 2, 3, 4}));
  }
  Levels levels = {1, 2};
  double mean = 5.0;
  EXPECT_FALSE(ColumnLevels(cv::Mat(4, 0, CV_8UC1), mean, levels));
  EXPECT_EQ(mean, 0.0);
  EXPECT_TRUE(levels.empty());
}

TEST(Equalisation, ColumnLevelsAreRoundedMeans) {
  const cv::Mat source = (cv::Mat_<uint8_t>(3, 3) << 1, 10, 255, 1, 11, 255, 2, 11, 255);
  Levels levels;
  double mean = 0.0;
  EXPECT_TRUE(ColumnLevels(source, mean, levels));
  EXPECT_EQ(levels, (Levels{1, 11, 255}));
  EXPECT_EQ(mean, (1.0 + 11.0 + 255.0) / 3.0);
}

}  // namespace
}  // namespace velostrix
