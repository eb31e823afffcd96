// Brightness equalisation in any destination. Whole images are checked with the call sequences.
#include "tool/equalisation.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "reference/reference_stages.h"

namespace velostrix {
namespace {

using Levels = std::vector<double>;

// Columns that differ in brightness, so that the offsets do; rows have gaps.
cv::Mat UnevenImage(int rows, int cols) {
  cv::Mat image(rows + 2, cols + 5, CV_8UC1);
  cv::RNG random(static_cast<uint64_t>(cols));
  random.fill(image, cv::RNG::UNIFORM, 0, 256);
  for (int j = 0; j < image.cols; ++j) image.col(j) *= random.uniform(0.0, 1.0);
  return image(cv::Rect(3, 1, cols, rows));
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

TEST(Equalisation, EqualsTheScalarRuleInAnyDestination) {
  for (int cols = 1; cols <= 40; ++cols) {
    const cv::Mat source = UnevenImage(cols % 3 + 1, cols);
    for (const double reference_level : {-1.0, -0.001, 0.0, 100.9, 255.0, 255.001}) {
      for (const int stored_levels : {0, cols, cols + 1}) {
        SCOPED_TRACE(testing::Message() << cols << " columns, reference level " << reference_level
                                        << ", stored levels " << stored_levels);
        Levels plain_levels(static_cast<size_t>(stored_levels), 77.0);
        const Levels stored = plain_levels;
        const cv::Mat plain = reference::EqualiseBrightness(plain_levels, source, reference_level);
        cv::Mat larger(source.rows + 2, cols + 9, CV_8UC1, cv::Scalar(99));
        cv::Mat inside = larger(cv::Rect(4, 1, cols, source.rows));
        for (cv::Mat destination : {cv::Mat(), source.clone(), inside,
                                    cv::Mat(source.size(), CV_16UC1), cv::Mat(1, 1, CV_8UC1)}) {
          Levels levels = stored;
          const cv::Mat from = Same(destination, source) ? destination : source;
          EXPECT_TRUE(EqualiseBrightness(levels, from, destination, reference_level));
          EXPECT_TRUE(Same(destination, plain));
          EXPECT_EQ(levels, plain_levels);
        }
        EXPECT_TRUE(Same(inside, plain)) << "a destination that fits is not used";
        inside.setTo(99);
        EXPECT_EQ(cv::countNonZero(larger != 99), 0) << "what surrounds it has changed";
      }
    }
  }
}

TEST(Equalisation, RefusalsTouchNothing) {
  for (const cv::Mat& source : {cv::Mat(), cv::Mat(0, 4, CV_8UC1), cv::Mat(4, 0, CV_8UC1),
                                cv::Mat(3, 4, CV_8UC2, cv::Scalar(1))}) {
    Levels levels = {1, 2, 3, 4};
    cv::Mat destination;
    EXPECT_FALSE(EqualiseBrightness(levels, source, destination, -1.0));
    EXPECT_TRUE(destination.empty());
    EXPECT_EQ(levels, (Levels{1, 2, 3, 4}));
  }
  Levels levels = {1, 2};
  double mean = 5.0;
  EXPECT_FALSE(ColumnLevels(cv::Mat(4, 0, CV_8UC1), mean, levels));
  EXPECT_EQ(mean, 0.0);
  EXPECT_TRUE(levels.empty());
}

}  // namespace
}  // namespace velostrix
