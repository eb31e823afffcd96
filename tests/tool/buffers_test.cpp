// Allocation and release of the working buffers, and what they are taken to hold.
#include "tool/buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tool/region.h"
#include "tool_under_test.h"

namespace velostrix {
namespace {

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int kBufferCount = 23;

struct Buffer {
  void* data;
  uint64_t bytes;  // modulo 2^64: some sizes here are beyond all memory
};

// Every buffer with the size that it should have.
std::vector<Buffer> Buffers(const UnCalibrationTool& tool) {
  const auto pixels = static_cast<uint64_t>(tool.rows * tool.row_step);
  const auto images = static_cast<uint64_t>(tool.image_count);
  std::vector<Buffer> buffers = {{tool.image_stack, images * pixels},
                                 {tool.height_plane, 2 * pixels},
                                 {tool.spare_stack, 4 * images * pixels}};
  for (float* map : {tool.factor_map, tool.slope_p, tool.slope_q, tool.gated_factor_map,
                     tool.deriv_p, tool.deriv_q, tool.blurred_deriv_p, tool.blurred_deriv_q,
                     tool.height_map, tool.spare_map}) {
    buffers.push_back({map, 4 * pixels});
  }
  for (uint8_t* plane :
       {tool.factor_plane, tool.channel_plane[0], tool.channel_plane[1], tool.channel_plane[2],
        tool.derivative_half[0], tool.derivative_half[1], tool.curvature_plane,
        tool.magnitude_plane, tool.spare_plane[0], tool.spare_plane[1]}) {
    buffers.push_back({plane, pixels});
  }
  return buffers;
}

int64_t CountAllocated(const UnCalibrationTool& tool) {
  const std::vector<Buffer> buffers = Buffers(tool);
  return std::count_if(buffers.begin(), buffers.end(),
                       [](const Buffer& buffer) { return buffer.data != nullptr; });
}

UnCalibrationParam StridedFrame(int32_t width, int32_t height, int32_t row_step) {
  UnCalibrationParam param = FrameParam(width, height);
  param.row_step = row_step;
  return param;
}

TEST(Buffers, AllocatedForEveryImageCount) {
  for (int32_t image_count = 3; image_count <= 8; ++image_count) {
    SCOPED_TRACE(image_count);
    UnCalibrationParam param = StridedFrame(7, 5, 9);
    param.image_count = image_count;
    const ToolPtr tool = NewTool(param);
    InitialImage(*tool);
    EXPECT_TRUE(CanRun(*tool));
    const std::vector<Buffer> buffers = Buffers(*tool);
    ASSERT_EQ(buffers.size(), kBufferCount);
    for (const Buffer& buffer : buffers) {
      ASSERT_NE(buffer.data, nullptr);
      auto* bytes = static_cast<uint8_t*>(buffer.data);
      EXPECT_EQ(static_cast<uint64_t>(std::count(bytes, bytes + buffer.bytes, 0)), buffer.bytes);
      std::fill_n(bytes, buffer.bytes, uint8_t{0xA5});  // the sanitizer sees to the size
    }
  }
}

TEST(Buffers, NothingIsAllocatedForWhatIsNoFrame) {
  const struct {
    const char* name;
    UnCalibrationParam param;
  } cases[] = {
      {"two images", FrameParam(8, 8, 2)},     {"nine images", FrameParam(8, 8, 9)},
      {"no images", FrameParam(8, 8, 0)},      {"minus one image", FrameParam(8, 8, -1)},
      {"300 images", FrameParam(8, 8, 300)},   {"the fewest images", FrameParam(8, 8, kIntMin)},
      {"no columns", FrameParam(0, 8)},        {"no rows", FrameParam(8, 0)},
      {"negative size", FrameParam(-8, -8)},   {"smallest size", FrameParam(kIntMin, kIntMin)},
      {"rows overlap", StridedFrame(8, 8, 7)}, {"rows run backwards", StridedFrame(8, 8, -8)}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = NewTool(c.param);
    const ToolState before(*tool);
    InitialImage(*tool);
    EXPECT_EQ(CountAllocated(*tool), 0);
    EXPECT_TRUE(ToolState(*tool) == before);
    EXPECT_FALSE(CanRun(*tool));
  }
}

TEST(Buffers, WithoutARegionScalingSetsTheWorkingSize) {
  const struct {
    int32_t width, height;
    double scale;
    int64_t cols, rows;
  } cases[] = {
      {201, 101, 0.5, 100, 50}, {8, 8, 0.5, 4, 4}, {20, 40, 0.645, 12, 25}, {3, 3, 0.34, 1, 1}};
  for (const auto& c : cases) {
    UnCalibrationParam param = StridedFrame(c.width, c.height, c.width + 5);
    param.scale = c.scale;
    const ToolPtr tool = NewTool(param);
    for (int repetition = 0; repetition < 2; ++repetition) {
      InitialImage(*tool);
      EXPECT_EQ(tool->cols, c.cols);
      EXPECT_EQ(tool->rows, c.rows);
      EXPECT_EQ(tool->row_step, c.cols);
      EXPECT_EQ(tool->plane_size, c.cols * c.rows);
      EXPECT_TRUE(CanRun(*tool));
      ReleaseImage(*tool);
    }
  }
}

TEST(Buffers, ScaledSizesThatAreNoneAllocateNothing) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double scale : {std::numeric_limits<double>::quiet_NaN(), infinity, -infinity, 1e300,
                             -1.0, 0.0, 1e-300, 0.01}) {
    SCOPED_TRACE(scale);
    UnCalibrationParam param = FrameParam(64, 48);
    param.scale = 0.5;
    const ToolPtr tool = NewTool(param);
    param.scale = scale;
    SetParam(*tool, param);
    ASSERT_EQ(tool->downscale_on, 1);
    InitialImage(*tool);
    EXPECT_EQ(CountAllocated(*tool), 0);
    EXPECT_FALSE(CanRun(*tool));
  }
  // Two negative numbers make no size either.
  UnCalibrationParam param = FrameParam(-64, -48);
  param.scale = -1.0;
  const ToolPtr tool = NewTool(param);
  InitialImage(*tool);
  EXPECT_EQ(CountAllocated(*tool), 0);
}

TEST(Buffers, ARegionFixesTheWorkingSizeOnce) {
  UnCalibrationParam param = FrameParam(200, 100);
  param.scale = 0.5;
  const ToolPtr tool = NewTool(param);
  ASSERT_TRUE(SetRegion(*tool, 10, 10, 89, 69));
  InitialImage(*tool);
  EXPECT_EQ(tool->cols, 40);
  EXPECT_EQ(tool->rows, 30);
}

TEST(Buffers, ReleaseForgetsEverythingAndMayBeRepeated) {
  const ToolPtr tool = NewTool(FrameParam(8, 6));
  ReleaseImage(*tool);
  InitialImage(*tool);
  tool->images_set = 3;
  for (int repetition = 0; repetition < 2; ++repetition) {
    ReleaseImage(*tool);
    EXPECT_EQ(CountAllocated(*tool), 0);
    EXPECT_EQ(tool->images_set, 0);
    EXPECT_FALSE(CanRun(*tool));
  }
  InitialImage(*tool);
  EXPECT_TRUE(CanRun(*tool));
}

TEST(Buffers, MemoryThatCannotBeHad) {
  // The second frame has as many bytes in a plane as fit in 64 bits, but not in a stack of them.
  for (const int32_t image_count : {3, 8}) {
    const ToolPtr tool = NewTool(FrameParam(kIntMax, kIntMax, image_count));
    InitialImage(*tool);
    EXPECT_EQ(CountAllocated(*tool), 0);
    EXPECT_FALSE(CanRun(*tool));
    EXPECT_FALSE(PlanesHoldFrame(*tool));
    EXPECT_FALSE(StackHoldsImages(*tool, 1));

    // The buffers of a frame that fits are not there because the geometry shrinks.
    SetParam(*tool, FrameParam(8, 6));
    EXPECT_FALSE(CanRun(*tool));
    ReleaseImage(*tool);
    InitialImage(*tool);
    EXPECT_TRUE(CanRun(*tool));
  }
}

TEST(Buffers, AGeometryIsComparedWithWhatWasAllocated) {
  const struct {
    const char* name;
    UnCalibrationParam param;
    bool fits;
  } cases[] = {{"the same", FrameParam(10, 8, 4), true},
               {"smaller", FrameParam(9, 8, 4), true},
               {"another shape", FrameParam(20, 4, 4), true},
               {"fewer images", FrameParam(10, 8, 3), true},
               {"one row more", FrameParam(10, 9, 4), false},
               {"one column more", FrameParam(11, 8, 4), false},
               {"longer rows", StridedFrame(10, 8, 11), false},
               {"one image more", FrameParam(10, 8, 5), false},
               {"more, but smaller images", FrameParam(10, 6, 5), true},
               {"ends of the range", FrameParam(kIntMax, kIntMax, 4), false},
               {"negative", FrameParam(-10, -8, 4), false},
               {"rows overlap", StridedFrame(10, 8, 9), false},
               {"too few images", FrameParam(10, 8, 2), false}};
  const ToolPtr tool = NewTool(FrameParam(10, 8, 4));
  InitialImage(*tool);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetParam(*tool, c.param);
    EXPECT_EQ(CanRun(*tool), c.fits);
  }
}

}  // namespace
}  // namespace velostrix
