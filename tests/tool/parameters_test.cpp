// The parameter record's way into the tool, field by field.
#include "tool/parameters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tool_under_test.h"

namespace velostrix {
namespace {

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// A record in which no two numbers are the same, laid out as a host lays it out: byte by byte.
UnCalibrationParam DistinctRecord() {
  UnCalibrationParam param = {};
  auto* bytes = reinterpret_cast<uint8_t*>(&param);
  const auto put_int = [&](size_t offset) {
    const auto value = static_cast<int32_t>(1000 + offset);
    std::memcpy(bytes + offset, &value, sizeof value);
  };
  const auto put_double = [&](size_t offset) {
    const auto value = static_cast<double>(offset) + 0.5;
    std::memcpy(bytes + offset, &value, sizeof value);
  };
  for (size_t offset = 0; offset < 48; offset += 4) put_int(offset);
  for (const size_t offset : {56, 60, 64, 68, 80, 96, 112, 128, 144, 160, 176, 192}) {
    put_int(offset);
  }
  for (const size_t offset : {48, 72, 88, 104, 120, 136, 152, 168, 184}) put_double(offset);
  return param;
}

TEST(Parameters, EveryFieldGoesToItsPlace) {
  const ToolPtr tool = NewTool();
  ASSERT_TRUE(SetParam(*tool, DistinctRecord()));

  EXPECT_EQ(tool->image_count, 1000);
  EXPECT_EQ(tool->cols, 1004);
  EXPECT_EQ(tool->roi_width, 1004);
  EXPECT_EQ(tool->rows, 1008);
  EXPECT_EQ(tool->roi_height, 1008);
  EXPECT_EQ(tool->row_step, 1012);
  EXPECT_EQ(tool->plane_size, 1012 * 1008);
  for (int i = 0; i < VELOSTRIX_OUTPUT_COUNT; ++i) {
    EXPECT_EQ(tool->output_enable[i], 1016 + 4 * i) << i;
  }
  EXPECT_EQ(tool->scale, 48.5);
  EXPECT_EQ(tool->difference_mode, 1056);
  EXPECT_EQ(tool->blur_radius, 1060);
  EXPECT_EQ(tool->iteration_cap, 1064);
  EXPECT_EQ(tool->factor_offset, 1068);
  EXPECT_EQ(tool->factor_gain, 72.5);
  const OutputScaling* const pairs[] = {&tool->curvature,  &tool->magnitude,  &tool->channel[0],
                                        &tool->channel[1], &tool->channel[2], &tool->reserved[0],
                                        &tool->reserved[1]};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(pairs[i]->offset, 1080 + 16 * i) << i;
    EXPECT_EQ(pairs[i]->gain, 88.5 + 16 * i) << i;
  }
  EXPECT_EQ(tool->equalise_on, 1192);
}

TEST(Parameters, RegionImagesAndBuffersStay) {
  const ToolPtr tool = NewTool(FrameParam(16, 12));
  tool->roi = {1, 2, 3, 4};
  tool->roi_set = 1;
  tool->images_set = 2;
  tool->smoothing = 7.0F;
  InitialImage(*tool);
  const uint8_t* const stack = tool->image_stack;

  SetParam(*tool, FrameParam(8, 6, 5));
  EXPECT_EQ(tool->roi.x, 1);
  EXPECT_EQ(tool->roi.y, 2);
  EXPECT_EQ(tool->roi.width, 3);
  EXPECT_EQ(tool->roi.height, 4);
  EXPECT_EQ(tool->roi_set, 1);
  EXPECT_EQ(tool->images_set, 2);
  EXPECT_EQ(tool->image_stack, stack);
  EXPECT_EQ(tool->smoothing, 1.0F);
}

TEST(Parameters, OnlyAScaleBelowItsLimitSwitchesScalingOn) {
  const struct {
    double scale;
    int32_t before, after;
  } cases[] = {{1.0, 0, 0},        {0.99, 0, 0},
               {0.989, 0, 1},      {0.5, 0, 1},
               {0.0, 0, 1},        {-1.0, 0, 1},
               {-kInfinity, 0, 1}, {kInfinity, 0, 0},
               {kNan, 0, 0},       {1.0, 1, 1},
               {0.99, 1, 1},       {kNan, 1, 1},
               {kInfinity, 1, 1},  {std::nextafter(0.99, 0.0), 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "scale " << c.scale << " from " << c.before);
    const ToolPtr tool = NewTool();
    tool->downscale_on = c.before;
    UnCalibrationParam param = FrameParam(100, 80);
    param.scale = c.scale;
    EXPECT_TRUE(SetParam(*tool, param));
    EXPECT_EQ(tool->downscale_on, c.after);
    EXPECT_EQ(tool->cols, 100);  // Initial and the region scale, not the record
    EXPECT_EQ(tool->rows, 80);
  }
}

TEST(Parameters, ExtremeSizesAreSignExtendedAndMultipliedIn64Bits) {
  const struct {
    int32_t height, row_step;
    int64_t plane_size;
  } cases[] = {{kIntMax, kIntMax, int64_t{kIntMax} * kIntMax},
               {kIntMin, kIntMin, int64_t{1} << 62},
               {kIntMin, kIntMax, int64_t{kIntMin} * kIntMax},
               {-3, 5, -15},
               {0, 5, 0}};
  for (const auto& c : cases) {
    UnCalibrationParam param = FrameParam(1, c.height, kIntMin);
    param.row_step = c.row_step;
    const ToolPtr tool = NewTool(param);
    EXPECT_EQ(tool->rows, c.height);
    EXPECT_EQ(tool->row_step, c.row_step);
    EXPECT_EQ(tool->plane_size, c.plane_size);
    EXPECT_EQ(tool->image_count, kIntMin);
  }
}

}  // namespace
}  // namespace velostrix
