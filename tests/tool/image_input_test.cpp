// The way of input images into the tool's stack: what is stored, and what is refused.
#include "tool/image_input.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "tool/equalisation.h"
#include "tool/region.h"
#include "tool_under_test.h"

namespace velostrix {
namespace {

constexpr int kWidth = 24;
constexpr int kHeight = 18;
constexpr uint8_t kUntouched = 0xA5;

cv::Mat RandomImage(int width, int height, int type = CV_8UC1) {
  cv::Mat image(height, width, type);
  cv::RNG rng(static_cast<uint64_t>(width * 1000 + height));
  rng.fill(image, cv::RNG::UNIFORM, 0, 255);
  return image;
}

// The same pixels with gaps between the rows.
cv::Mat WithGaps(const cv::Mat& image) {
  cv::Mat parent(image.rows + 2, image.cols + 7, image.type(), cv::Scalar::all(77));
  cv::Mat inside = parent(cv::Rect(3, 1, image.cols, image.rows));
  image.copyTo(inside);
  return inside;
}

ToolPtr ReadyTool(const UnCalibrationParam& param) {
  ToolPtr tool = NewTool(param);
  InitialImage(*tool);
  std::fill_n(tool->image_stack, tool->allocated_stack_bytes, kUntouched);
  return tool;
}

ToolPtr ReadyTool() { return ReadyTool(FrameParam(kWidth, kHeight)); }

// The stored plane as an image over the stack.
cv::Mat StoredImage(const UnCalibrationTool& tool, int64_t k) {
  return {static_cast<int>(tool.rows), static_cast<int>(tool.cols), CV_8UC1,
          tool.image_stack + k * tool.plane_size, static_cast<size_t>(tool.row_step)};
}

bool SameBytes(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0;
}

// Stores the image as the next one and expects the plane to be as given and nothing else to change.
void ExpectStored(UnCalibrationTool& tool, const cv::Mat& image, const cv::Mat& expected) {
  const int64_t next = tool.images_set;
  const ToolState before(tool);
  const cv::Mat copy = image.clone();
  ASSERT_TRUE(SetImage(tool, image));
  EXPECT_TRUE(SameBytes(image, copy)) << "the host's image was changed";
  EXPECT_EQ(tool.images_set, next + 1);
  EXPECT_TRUE(SameBytes(StoredImage(tool, next), expected));

  cv::Mat plane = StoredImage(tool, next);
  for (int row = 0; row < plane.rows; ++row) {
    const auto at = static_cast<ptrdiff_t>(plane.ptr(row) - tool.image_stack);
    std::copy_n(before.stack.begin() + at, plane.cols, plane.ptr(row));
  }
  EXPECT_EQ(ToolState(tool).stack, before.stack) << "bytes outside the image were changed";
}

void ExpectRefused(UnCalibrationTool& tool, const cv::Mat& image) {
  const ToolState before(tool);
  EXPECT_FALSE(SetImage(tool, image));
  EXPECT_TRUE(ToolState(tool) == before);
}

TEST(ImageInput, WholeFrame) {
  const cv::Mat image = RandomImage(kWidth, kHeight);
  const cv::Mat longer = RandomImage(kWidth, kHeight + 5);
  const cv::Mat wider = RandomImage(kWidth + 9, kHeight);
  const cv::Mat colour = RandomImage(kWidth, kHeight, CV_8UC3);
  const cv::Mat words = RandomImage(kWidth, kHeight, CV_16UC1);
  // An image that is not the frame counts as a run of bytes.
  const auto first_bytes = [](const cv::Mat& any) {
    return cv::Mat(kHeight, kWidth, CV_8UC1, any.data);
  };

  const ToolPtr tool = ReadyTool(FrameParam(kWidth, kHeight, 8));
  ExpectStored(*tool, image, image);
  ExpectStored(*tool, WithGaps(image), image);
  ExpectStored(*tool, cv::Mat(image).reshape(0, 1), image);
  ExpectStored(*tool, longer, first_bytes(longer));
  ExpectStored(*tool, wider, first_bytes(wider));
  ExpectStored(*tool, colour, first_bytes(colour));
  ExpectStored(*tool, words, first_bytes(words));
}

TEST(ImageInput, RowsOfTheToolMayStandApart) {
  UnCalibrationParam param = FrameParam(kWidth, kHeight);
  param.row_step = kWidth + 6;
  const ToolPtr tool = ReadyTool(param);
  const cv::Mat image = RandomImage(kWidth, kHeight);
  ExpectStored(*tool, image, image);
  ExpectStored(*tool, WithGaps(image), image);
}

TEST(ImageInput, NoImage) {
  const cv::Mat small = RandomImage(kWidth, kHeight - 1);
  const int sizes[] = {3, kHeight, kWidth};
  cv::Mat hollow = RandomImage(kWidth, kHeight);
  hollow.data = nullptr;
  const struct {
    const char* name;
    cv::Mat image;
  } cases[] = {{"empty", cv::Mat()},
               {"no columns", cv::Mat(kHeight, 0, CV_8UC1)},
               {"no rows", cv::Mat(0, kWidth, CV_8UC1)},
               {"no pixels behind the header", hollow},
               {"three dimensions", cv::Mat(3, sizes, CV_8UC1)},
               {"a row short", small},
               {"a pixel short", cv::Mat(1, kWidth * kHeight - 1, CV_8UC1, cv::Scalar(1))}};
  for (const int32_t equalise_on : {0, 1}) {
    UnCalibrationParam param = FrameParam(kWidth, kHeight);
    param.equalise_on = equalise_on;
    const ToolPtr tool = ReadyTool(param);
    ASSERT_TRUE(SetImage(*tool, RandomImage(kWidth, kHeight)));
    for (const auto& c : cases) {
      SCOPED_TRACE(testing::Message() << c.name << ", equalise " << equalise_on);
      ExpectRefused(*tool, c.image);
    }
  }
}

TEST(ImageInput, NoMoreImagesThanTheCount) {
  const ToolPtr tool = ReadyTool();
  const cv::Mat image = RandomImage(kWidth, kHeight);
  for (int repetition = 0; repetition < 2; ++repetition) {
    for (int k = 0; k < 3; ++k) ExpectStored(*tool, image, image);
    ExpectRefused(*tool, image);
    ClearImage(*tool);
    EXPECT_EQ(tool->images_set, 0);
  }
}

TEST(ImageInput, OnlyIntoBuffersThatHoldIt) {
  const cv::Mat image = RandomImage(2 * kWidth, 2 * kHeight);
  const struct {
    const char* name;
    std::function<void(UnCalibrationTool&)> change;
  } cases[] = {
      {"released", ReleaseImage},
      {"a row more", [](auto& tool) { SetParam(tool, FrameParam(kWidth, kHeight + 1)); }},
      {"a column more", [](auto& tool) { SetParam(tool, FrameParam(kWidth + 1, kHeight)); }},
      {"region lifted to a larger frame",
       [](auto& tool) { ClearRegion(tool, kHeight, kWidth, kWidth + 1); }},
      {"rows overlap", [](auto& tool) { ClearRegion(tool, kHeight, kWidth, kWidth - 1); }},
      {"no rows", [](auto& tool) { SetParam(tool, FrameParam(kWidth, 0)); }},
      {"negative frame", [](auto& tool) { SetParam(tool, FrameParam(-kWidth, -kHeight)); }},
      {"fewer images than are set", [](auto& tool) {
         tool.images_set = 2;
         SetParam(tool, FrameParam(kWidth, kHeight, 1));
       }}};
  ExpectRefused(*NewTool(), image);
  ExpectRefused(*NewTool(FrameParam(kWidth, kHeight)), image);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = ReadyTool();
    c.change(*tool);
    ExpectRefused(*tool, image);
  }

  // More images than the stack was made for: those that it holds are stored, the next is not.
  const ToolPtr tool = ReadyTool();
  SetParam(*tool, FrameParam(kWidth, kHeight, 8));
  for (int k = 0; k < 3; ++k) EXPECT_TRUE(SetImage(*tool, image));
  ExpectRefused(*tool, image);
}

TEST(ImageInput, CutToTheRegion) {
  const ToolPtr tool = NewTool(FrameParam(640, 480));
  ASSERT_TRUE(SetRegion(*tool, 10, 10, 109, 59));
  InitialImage(*tool);
  const cv::Mat image = RandomImage(640, 480);
  const cv::Mat inside = image(cv::Rect(10, 10, 100, 50));
  ExpectStored(*tool, image, inside);
  ExpectStored(*tool, WithGaps(image), inside);
  const cv::Mat just_large_enough = RandomImage(110, 60);
  ExpectStored(*tool, just_large_enough, just_large_enough(cv::Rect(10, 10, 100, 50)));
  ClearImage(*tool);

  for (const int type : {CV_8UC2, CV_8UC3, CV_8UC4, CV_16UC1, CV_32FC1, CV_32FC4}) {
    SCOPED_TRACE(type);
    ExpectRefused(*tool, RandomImage(640, 480, type));
  }
  ExpectRefused(*tool, {});
  for (const cv::Size size : {cv::Size(109, 60), cv::Size(110, 59), cv::Size(5, 5)}) {
    const ToolState before(*tool);
    EXPECT_THROW(SetImage(*tool, RandomImage(size.width, size.height)), cv::Exception);
    EXPECT_TRUE(ToolState(*tool) == before);
  }
}

TEST(ImageInput, ScaledToTheWorkingSize) {
  const cv::Mat image = RandomImage(200, 100);
  UnCalibrationParam param = FrameParam(200, 100);
  param.scale = 0.5;
  cv::Mat expected;

  const ToolPtr frame = ReadyTool(param);
  cv::resize(image, expected, cv::Size(100, 50), 0, 0, cv::INTER_LINEAR);
  ExpectStored(*frame, image, expected);
  ExpectStored(*frame, WithGaps(image), expected);
  const cv::Mat any_size = RandomImage(77, 31);  // without a region every size is resized
  cv::resize(any_size, expected, cv::Size(100, 50), 0, 0, cv::INTER_LINEAR);
  ExpectStored(*frame, any_size, expected);

  const ToolPtr region = NewTool(param);
  ASSERT_TRUE(SetRegion(*region, 11, 7, 91, 47));
  InitialImage(*region);
  cv::resize(image(cv::Rect(11, 7, 81, 41)), expected, cv::Size(40, 20), 0, 0, cv::INTER_LINEAR);
  ExpectStored(*region, image, expected);
  ExpectRefused(*region, RandomImage(200, 100, CV_8UC3));
}

TEST(ImageInput, Equalised) {
  UnCalibrationParam param = FrameParam(200, 100);
  param.equalise_on = 1;
  const cv::Mat image = RandomImage(200, 100);
  std::vector<double> levels;
  cv::Mat expected;

  const ToolPtr frame = ReadyTool(param);
  ASSERT_TRUE(EqualiseBrightness(levels, image, expected, -1.0));
  ExpectStored(*frame, WithGaps(image), expected);
  EXPECT_EQ(frame->column_levels, levels);
  EXPECT_FALSE(SameBytes(image, expected));
  for (const int type : {CV_8UC2, CV_8UC3, CV_16UC3})
    ExpectRefused(*frame, RandomImage(200, 100, type));

  // After the cut and after the resize, not before.
  const ToolPtr region = NewTool(param);
  ASSERT_TRUE(SetRegion(*region, 0, 0, 49, 29));
  InitialImage(*region);
  ASSERT_TRUE(EqualiseBrightness(levels, image(cv::Rect(0, 0, 50, 30)), expected, -1.0));
  ExpectStored(*region, image, expected);

  param.scale = 0.25;
  const ToolPtr scaled = ReadyTool(param);
  cv::Mat small;
  cv::resize(image, small, cv::Size(50, 25), 0, 0, cv::INTER_LINEAR);
  ASSERT_TRUE(EqualiseBrightness(levels, small, expected, -1.0));
  ExpectStored(*scaled, image, expected);
}

TEST(ImageInput, RecordsOfEveryTypeAreTakenAsTheirImages) {
  const int types[] = {CV_8UC1,  CV_8UC2,  CV_8UC3,  CV_8UC4,  CV_16UC1, CV_16UC2,
                       CV_16UC3, CV_16UC4, CV_32FC1, CV_32FC2, CV_32FC3, CV_32FC4};
  for (int32_t code = 1; code <= 12; ++code) {
    SCOPED_TRACE(code);
    const cv::Mat image = RandomImage(kWidth, kHeight, types[code - 1]);
    // Sizes other than the frame's are told apart by the number of bytes alone.
    for (const int32_t height : {kHeight, kHeight / 2, 1}) {
      const cv::Mat part = image.rowRange(0, height);
      const ImageRecord record = {part.data,
                                  part.cols,
                                  part.rows,
                                  static_cast<int32_t>(part.step[0]),
                                  std::numeric_limits<int32_t>::min(),
                                  code};
      const ToolPtr from_record = ReadyTool();
      const ToolPtr from_image = ReadyTool();
      EXPECT_EQ(SetImage(*from_record, record), SetImage(*from_image, part));
      EXPECT_EQ(from_record->images_set, from_image->images_set);
      EXPECT_EQ(ToolState(*from_record).stack, ToolState(*from_image).stack);
    }
  }
}

TEST(ImageInput, RecordsWithStride) {
  const cv::Mat image = RandomImage(kWidth, kHeight);
  const cv::Mat apart = WithGaps(image);
  const ToolPtr tool = ReadyTool();
  EXPECT_TRUE(SetImage(*tool, ImageRecord{image.data, kWidth, kHeight, 0, 0, 1}));
  EXPECT_TRUE(SetImage(
      *tool, ImageRecord{apart.data, kWidth, kHeight, static_cast<int32_t>(apart.step[0]), 0, 1}));
  EXPECT_TRUE(SameBytes(StoredImage(*tool, 0), image));
  EXPECT_TRUE(SameBytes(StoredImage(*tool, 1), image));
}

TEST(ImageInput, RecordsThatDescribeNoImage) {
  constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
  constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
  const cv::Mat pixels = RandomImage(kWidth, kHeight, CV_32FC4);
  const void* const data = pixels.data;
  const struct {
    const char* name;
    ImageRecord record;
  } cases[] = {{"type 0", {data, kWidth, kHeight, kWidth, 0, 0}},
               {"type 13", {data, kWidth, kHeight, kWidth, 0, 13}},
               {"type -1", {data, kWidth, kHeight, kWidth, 0, -1}},
               {"lowest type", {data, kWidth, kHeight, kWidth, 0, kIntMin}},
               {"highest type", {data, kWidth, kHeight, kWidth, 0, kIntMax}},
               {"no data", {nullptr, kWidth, kHeight, kWidth, 0, 1}},
               {"no columns", {data, 0, kHeight, kWidth, 0, 1}},
               {"no rows", {data, kWidth, 0, kWidth, 0, 1}},
               {"negative width", {data, -kWidth, kHeight, kWidth, 0, 1}},
               {"negative height", {data, kWidth, -kHeight, kWidth, 0, 1}},
               {"lowest size", {data, kIntMin, kIntMin, 0, 0, 1}},
               {"stride below the row", {data, kWidth, kHeight, kWidth - 1, 0, 1}},
               {"stride below the wider row", {data, kWidth, kHeight, 3 * kWidth - 1, 0, 3}},
               {"negative stride", {data, kWidth, kHeight, -kWidth, 0, 1}},
               {"lowest stride", {data, kWidth, kHeight, kIntMin, 0, 1}},
               {"row beyond 32 bits", {data, kIntMax, 1, kIntMax, 0, 12}},
               {"odd stride of words", {data, kWidth, kHeight, 2 * kWidth + 1, 0, 5}},
               {"uneven stride of floats", {data, kWidth, kHeight, 4 * kWidth + 2, 0, 9}},
               {"a byte short", {data, kWidth * kHeight - 1, 1, 0, 0, 1}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = ReadyTool();
    const ToolState before(*tool);
    EXPECT_FALSE(SetImage(*tool, c.record));
    EXPECT_TRUE(ToolState(*tool) == before);
  }
}

TEST(ImageInput, ImageArraysAreDestroyed) {
  constexpr size_t kImages = 3;
  const cv::Mat shared = RandomImage(8, 8);
  auto* images = new cv::Mat[kImages];
  std::fill_n(images, kImages, shared);
  EXPECT_EQ(shared.u->refcount, 1 + static_cast<int>(kImages));
  DestroyImageArray(images);
  EXPECT_EQ(shared.u->refcount, 1);
  DestroyImageArray(nullptr);
}

}  // namespace
}  // namespace velostrix
