// The way of input images into the tool's stack: equalised, stored or refused.
#include "tool/image_input.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "reference/reference_stages.h"
#include "tool/equalisation.h"
#include "tool/region.h"
#include "tool_under_test.h"

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
        const Levels stored(static_cast<size_t>(stored_levels), 77.0);
        Levels expected_levels = stored;
        const cv::Mat expected =
            reference::EqualiseBrightness(expected_levels, source, reference_level);
        cv::Mat larger(source.rows + 2, cols + 9, CV_8UC1, cv::Scalar(99));
        const cv::Mat inside = larger(cv::Rect(4, 1, cols, source.rows));
        for (cv::Mat destination :
             {cv::Mat(), source.clone(), inside, cv::Mat(source.size(), CV_16UC1),
              cv::Mat(source.rows, cols + 1, CV_8UC1), cv::Mat(source.rows + 1, cols, CV_8UC1)}) {
          Levels levels = stored;
          const bool in_place = Same(destination, source);
          const cv::Mat from = in_place ? destination : source;
          EXPECT_TRUE(EqualiseBrightness(levels, from, destination, reference_level));
          EXPECT_TRUE(Same(destination, expected));
          EXPECT_EQ(levels, expected_levels);
        }
        EXPECT_TRUE(Same(inside, expected)) << "a destination that fits is not used";
        larger(cv::Rect(4, 1, cols, source.rows)) = 99;
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

constexpr int kWidth = 48;
constexpr int kHeight = 36;

cv::Mat RandomImage(int width = kWidth, int height = kHeight, int type = CV_8UC1) {
  cv::Mat image(height, width, type);
  cv::RNG(static_cast<uint64_t>(width + 1000 * height)).fill(image, cv::RNG::UNIFORM, 0, 255);
  return image;
}

// The same pixels with gaps between the rows.
cv::Mat WithGaps(const cv::Mat& image) {
  cv::Mat parent(image.rows + 2, image.cols + 7, image.type(), cv::Scalar::all(77));
  cv::Mat inside = parent(cv::Rect(3, 1, image.cols, image.rows));
  image.copyTo(inside);
  return inside;
}

ToolPtr ReadyTool() {
  ToolPtr tool = NewTool(FrameParam(kWidth, kHeight));
  InitialImage(*tool);
  return tool;
}

// Regions, scales and equalisation are compared where whole runs are.
TEST(ImageInput, StoresThePlaneAndNothingElse) {
  const cv::Mat frame = RandomImage();
  for (const cv::Mat& image :
       {WithGaps(frame), frame.reshape(0, 1), RandomImage(kWidth, kHeight + 1),
        RandomImage(kWidth + 9, kHeight), RandomImage(kWidth, kHeight, CV_8UC3),
        RandomImage(kWidth, kHeight, CV_16UC1), WithGaps(RandomImage(kWidth, kHeight - 4))}) {
    for (const int gap : {0, 6}) {
      SCOPED_TRACE(testing::Message()
                   << image.size() << ", type " << image.type() << ", gap " << gap);
      UnCalibrationParam param = FrameParam(kWidth, kHeight);
      param.row_step = kWidth + gap;
      const ToolPtr tool = NewTool(param);
      InitialImage(*tool);
      std::fill_n(tool->image_stack, tool->allocated_stack_bytes, uint8_t{0xA5});
      std::vector<uint8_t> expected = ToolState(*tool).stack;
      for (int row = 0; row < 2 * kHeight; ++row) {
        // What is not the frame counts as a run of bytes.
        const bool is_frame = image.size() == frame.size() && image.type() == CV_8UC1;
        const size_t step = is_frame ? image.step[0] : kWidth;
        std::copy_n(image.data + static_cast<size_t>(row % kHeight) * step, kWidth,
                    expected.begin() + row * param.row_step);
      }
      EXPECT_TRUE(SetImage(*tool, image));
      EXPECT_TRUE(SetImage(*tool, image));
      EXPECT_EQ(ToolState(*tool).stack, expected);
    }
  }
}

TEST(ImageInput, RefusesWhatHoldsNoPlane) {
  const int sizes[] = {3, kHeight, kWidth};
  cv::Mat hollow = RandomImage();
  hollow.data = nullptr;
  const ToolPtr tool = ReadyTool();
  const ToolState before(*tool);
  for (const cv::Mat& image :
       {cv::Mat(), hollow, cv::Mat(3, sizes, CV_8UC1), cv::Mat(1, kWidth * kHeight - 1, CV_8UC1),
        WithGaps(RandomImage(kWidth, kHeight - 5))}) {
    EXPECT_FALSE(SetImage(*tool, image)) << image.size();
    EXPECT_TRUE(ToolState(*tool) == before);
  }
  // As many bytes a row as the frame, in half as many pixels: a region that outlives new
  // parameters.
  EXPECT_TRUE(SetRegion(*tool, 0, 0, kWidth / 2 - 1, kHeight - 1));
  SetParam(*tool, FrameParam(kWidth, kHeight));
  EXPECT_FALSE(SetImage(*tool, RandomImage(kWidth, kHeight, CV_16UC1)));
}

// A record is taken as the image that it describes; sizes other than the frame's are told apart by
// the number of bytes alone.
TEST(ImageInput, RecordsOfEveryType) {
  constexpr int kDepths[] = {CV_8U, CV_16U, CV_32F};
  for (int32_t code = 1; code <= 12; ++code) {
    const int type = CV_MAKETYPE(kDepths[(code - 1) / 4], (code - 1) % 4 + 1);
    for (const int height : {kHeight, kHeight / 2, 1}) {
      SCOPED_TRACE(testing::Message() << "type " << code << ", height " << height);
      cv::Mat image = RandomImage(kWidth, height, type);
      if (height == kHeight) image = WithGaps(image);
      const int32_t stride = height == kHeight ? static_cast<int32_t>(image.step[0]) : 0;
      const ToolPtr from_record = ReadyTool();
      const ToolPtr from_image = ReadyTool();
      EXPECT_EQ(SetImage(*from_record, ImageRecord{image.data, kWidth, height, stride, -1, code}),
                SetImage(*from_image, image));
      EXPECT_EQ(ToolState(*from_record).stack, ToolState(*from_image).stack);
    }
  }
}

TEST(ImageInput, RecordsThatDescribeNoImage) {
  const cv::Mat pixels = RandomImage(kWidth, kHeight, CV_32FC4);
  const void* const p = pixels.data;
  const ToolPtr tool = ReadyTool();
  const ToolState before(*tool);
  for (const ImageRecord& record :
       {ImageRecord{p, kWidth, kHeight, 0, 0, 0}, ImageRecord{p, kWidth, kHeight, 0, 0, 13},
        ImageRecord{nullptr, kWidth, kHeight, 0, 0, 1}, ImageRecord{p, 0, kHeight, 0, 0, 1},
        ImageRecord{p, kWidth, 0, 0, 0, 1}, ImageRecord{p, -kWidth, -kHeight, 0, 0, 1},
        ImageRecord{p, kWidth, kHeight, 3 * kWidth - 1, 0, 3},
        ImageRecord{p, kWidth, kHeight, -kWidth, 0, 1}, ImageRecord{p, 1 << 30, 1, 1 << 30, 0, 12},
        ImageRecord{p, kWidth, kHeight, 2 * kWidth + 1, 0, 5},
        ImageRecord{p, kWidth, kHeight, 4 * kWidth + 2, 0, 9}}) {
    EXPECT_FALSE(SetImage(*tool, record)) << "stride " << record.row_stride << ", type "
                                          << record.type_code << ", width " << record.width;
    EXPECT_TRUE(ToolState(*tool) == before);
  }
}

}  // namespace
}  // namespace velostrix
