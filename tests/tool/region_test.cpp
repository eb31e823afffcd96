// The region of interest and the working size that follows from it.
#include "tool/region.h"

#include <gtest/gtest.h>

#include <limits>

#include "tool_under_test.h"

namespace velostrix {
namespace {

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();

struct Corners {
  int32_t x1, y1, x2, y2;
};

bool SetCorners(UnCalibrationTool& tool, const Corners& c) {
  return SetRegion(tool, c.x1, c.y1, c.x2, c.y2);
}

void ExpectRegion(const UnCalibrationTool& tool, const RegionOfInterest& roi) {
  EXPECT_EQ(tool.roi.x, roi.x);
  EXPECT_EQ(tool.roi.y, roi.y);
  EXPECT_EQ(tool.roi.width, roi.width);
  EXPECT_EQ(tool.roi.height, roi.height);
}

void ExpectWorkingSize(const UnCalibrationTool& tool, int64_t cols, int64_t rows) {
  EXPECT_EQ(tool.cols, cols);
  EXPECT_EQ(tool.row_step, cols);
  EXPECT_EQ(tool.rows, rows);
  EXPECT_EQ(tool.plane_size, cols * rows);
}

UnCalibrationParam ScaledFrame(double scale) {
  UnCalibrationParam param = FrameParam(640, 480);
  param.scale = scale;
  return param;
}

TEST(Region, ClampedAndScaled) {
  const struct {
    const char* name;
    double scale;
    Corners corners;
    RegionOfInterest roi;
    int64_t cols, rows;
    int32_t downscale_on;
  } cases[] = {
      {"inside", 1.0, {10, 10, 109, 59}, {10, 10, 100, 50}, 100, 50, 0},
      {"one pixel", 1.0, {3, 4, 3, 4}, {3, 4, 1, 1}, 1, 1, 0},
      {"last pixel", 1.0, {639, 479, 639, 479}, {639, 479, 1, 1}, 1, 1, 0},
      {"beyond the frame", 1.0, {-5, -5, 10000, 10000}, {0, 0, 640, 480}, 640, 480, 0},
      {"ends of the range",
       1.0,
       {kIntMin, kIntMin, kIntMax, kIntMax},
       {0, 0, 640, 480},
       640,
       480,
       0},
      {"half", 0.5, {0, 0, 99, 39}, {0, 0, 100, 40}, 50, 20, 1},
      {"scaled height is 10", 0.5, {0, 0, 99, 19}, {0, 0, 100, 20}, 100, 20, 0},
      {"scaled width is 10", 0.5, {0, 0, 19, 99}, {0, 0, 20, 100}, 20, 100, 0},
      {"just above 10 both ways", 0.5, {0, 0, 20, 20}, {0, 0, 21, 21}, 10, 10, 1},
      {"25.8 x 12.9", 0.645, {0, 0, 39, 19}, {0, 0, 40, 20}, 25, 12, 1},
      {"negative scale", -0.5, {0, 0, 99, 39}, {0, 0, 100, 40}, 100, 40, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = NewTool(ScaledFrame(c.scale));
    EXPECT_TRUE(SetCorners(*tool, c.corners));
    EXPECT_EQ(tool->roi_set, 1);
    ExpectRegion(*tool, c.roi);
    EXPECT_EQ(tool->roi_width, c.roi.width);
    EXPECT_EQ(tool->roi_height, c.roi.height);
    ExpectWorkingSize(*tool, c.cols, c.rows);
    EXPECT_EQ(tool->downscale_on, c.downscale_on);
  }
}

TEST(Region, AnEmptyOneLiftsTheRegionAndKeepsTheGeometry) {
  const struct {
    const char* name;
    Corners corners;
    RegionOfInterest roi;
  } cases[] = {
      {"corners swapped", {10, 10, 5, 20}, {10, 10, -4, 11}},
      {"right of the frame", {640, 0, 700, 10}, {640, 0, 0, 11}},
      {"below the frame", {0, 480, 10, 500}, {0, 480, 11, 0}},
      {"left of the frame", {-20, 0, -1, 10}, {0, 0, 0, 11}},
      {"the widest gap",
       {kIntMax, kIntMax, kIntMin, kIntMin},
       {kIntMax, kIntMax, kIntMin, kIntMin}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = NewTool(ScaledFrame(0.5));
    EXPECT_FALSE(SetCorners(*tool, c.corners));
    EXPECT_EQ(tool->roi_set, 0);
    ExpectRegion(*tool, c.roi);
    EXPECT_EQ(tool->roi_width, 640);
    EXPECT_EQ(tool->roi_height, 480);
    ExpectWorkingSize(*tool, 640, 480);
    EXPECT_EQ(tool->downscale_on, 1);
  }
}

TEST(Region, ASecondOneIsClampedByTheFirst) {
  const ToolPtr tool = NewTool(ScaledFrame(0.5));
  ASSERT_TRUE(SetRegion(*tool, 100, 100, 299, 199));
  ExpectWorkingSize(*tool, 100, 50);
  ASSERT_TRUE(SetRegion(*tool, 40, 20, 299, 199));  // in a working frame of 100 x 50 by now
  ExpectRegion(*tool, {40, 20, 60, 30});
  ExpectWorkingSize(*tool, 30, 15);

  EXPECT_FALSE(SetRegion(*tool, 50, 0, 60, 10));
  EXPECT_EQ(tool->roi_set, 0);

  SetParam(*tool, ScaledFrame(1.0));  // starts afresh, with scaling stuck on
  ASSERT_TRUE(SetRegion(*tool, 100, 100, 299, 199));
  ExpectRegion(*tool, {100, 100, 200, 100});
  ExpectWorkingSize(*tool, 200, 100);
  EXPECT_EQ(tool->downscale_on, 1);
  ASSERT_TRUE(SetRegion(*tool, 0, 0, 9, 99));  // ten wide: scaling goes off for good
  EXPECT_EQ(tool->downscale_on, 0);
}

// A scale that is no scale, set while scaling is stuck on, must leave a geometry that is one.
TEST(Region, HostileScaleOrFrame) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double scale : {std::numeric_limits<double>::quiet_NaN(), infinity, -infinity, 1e300,
                             1e10, 1e8, 4e6, -1e300, 0.0, 1e-300}) {
    SCOPED_TRACE(scale);
    const ToolPtr tool = NewTool(ScaledFrame(0.5));
    SetParam(*tool, ScaledFrame(scale));
    const ToolState before(*tool);
    if (SetRegion(*tool, 0, 0, 639, 479)) {
      EXPECT_GT(tool->rows, 0);
      EXPECT_GT(tool->cols, 0);
      EXPECT_LE(tool->rows, kIntMax);
      EXPECT_LE(tool->cols, kIntMax);
      EXPECT_EQ(tool->plane_size, tool->rows * tool->row_step);
    }
  }
  for (const int32_t size : {0, -1, kIntMin}) {
    const ToolPtr tool = NewTool(FrameParam(size, size));
    EXPECT_FALSE(SetRegion(*tool, 0, 0, 10, 10));
    EXPECT_FALSE(SetRegion(*tool, kIntMin, kIntMin, kIntMax, kIntMax));
    EXPECT_EQ(tool->cols, size);
  }
  const ToolPtr tool = NewTool(FrameParam(kIntMax, kIntMax));
  EXPECT_TRUE(SetRegion(*tool, kIntMin, 0, kIntMax, kIntMax));
  ExpectRegion(*tool, {0, 0, kIntMax, kIntMax});
}

TEST(Region, Lifted) {
  const ToolPtr tool = NewTool(ScaledFrame(0.5));
  ASSERT_TRUE(SetRegion(*tool, 100, 100, 299, 199));
  EXPECT_EQ(ClearRegion(*tool, 480, 640, 648), 480 * 648);
  ExpectRegion(*tool, {0, 0, 0, 0});
  EXPECT_EQ(tool->roi_set, 0);
  EXPECT_EQ(tool->rows, 480);
  EXPECT_EQ(tool->cols, 640);
  EXPECT_EQ(tool->row_step, 648);
  EXPECT_EQ(tool->plane_size, 480 * 648);
  EXPECT_EQ(tool->roi_width, 200);
  EXPECT_EQ(tool->roi_height, 100);
  EXPECT_EQ(tool->downscale_on, 1);

  EXPECT_EQ(ClearRegion(*tool, 480, 640, 640), 307200);
  EXPECT_EQ(ClearRegion(*tool, kIntMin, 1, kIntMin), int64_t{1} << 62);
  EXPECT_EQ(ClearRegion(*tool, kIntMin, 1, kIntMax), int64_t{kIntMin} * kIntMax);
}

}  // namespace
}  // namespace velostrix
